#include "service/velmar_file_directory.h"

#include <utility>

using velmar_message::FileDirectory;

namespace {

constexpr char kUnknown[] = "UNKNOWN";

}  // namespace

VelmarFileDirectory::VelmarFileDirectory(FileDirectory directory_id, std::string path)
    : id(directory_id), prefix(std::move(path)) {}

VelmarFileDirectory::~VelmarFileDirectory() = default;

// NOLINTNEXTLINE(cert-err58-cpp): it can throw nothing but bad_alloc.
VelmarFileDirectory VelmarFileDirectoryTable::table[3] = {
        {velmar_message::FILE_DIRECTORY_UNKNOWN, kUnknown},
        {velmar_message::FILE_DIRECTORY_MDS, "/data/vendor/radio/mds/"},
        {velmar_message::FILE_DIRECTORY_REPLAY, "/mnt/vendor/modem_userdata/replay/"},
};

const VelmarFileDirectory* VelmarFileDirectoryTable::FindRow(FileDirectory id) {
    // Row 0 is a placeholder and never matched.
    for (const VelmarFileDirectory* row : {&table[1], &table[2]}) {
        if (row->id == id) return row;
    }
    return nullptr;
}

std::string VelmarFileDirectoryTable::FindDirectoryFromId(FileDirectory id) {
    const VelmarFileDirectory* row = FindRow(id);
    return row != nullptr ? row->prefix : kUnknown;
}

bool VelmarFileDirectoryTable::Contains(FileDirectory id) {
    return FindRow(id) != nullptr;
}
