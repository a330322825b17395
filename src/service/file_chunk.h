#pragma once

#include <cstdint>
#include <string>

#include "proto/velmar_message.pb.h"

// One chunk of a file that the modem stores on the phone. Borrows what it points to.
struct FileChunk {
    velmar_message::FileDirectory file_dir;
    const std::string* file_name;
    const std::string* data;
    // Size of the whole file, in bytes.
    uint32_t max_data_size;
    // Where the chunk begins in the whole file, in bytes.
    uint32_t offset;
};

// Where the log lines of requests and indications differ.
struct FileChunkLines {
    // Priority of the line that announces the write.
    int handle_priority;
    // Format of the line for a temporary file that cannot be opened.
    const char* open_failed;
    // The line for a file that has reached its target.
    const char* moved;
};

// What became of a chunk.
struct FileChunkOutcome {
    bool stored;
    // The number for the modem; the default one unless a failure has its own.
    velmar_message::FileMessageResult file_result;
};

// Appends a chunk to the temporary file of its name. Once that has reached the size of the whole
// file, copies it into the chunk's directory and deletes it. The temporary file's size is all the
// state there is between chunks. Logs each failure. IO thread only.
FileChunkOutcome StoreFileChunk(const FileChunk& chunk, const FileChunkLines& lines);
