#pragma once

#include <string>

#include "proto/velmar_message.pb.h"

// A directory that takes files from the modem.
class VelmarFileDirectory {
  public:
    // The directory `directory_id` at `path`, which ends in "/".
    VelmarFileDirectory(velmar_message::FileDirectory directory_id, std::string path);
    virtual ~VelmarFileDirectory();

    velmar_message::FileDirectory id;
    std::string prefix;
};

// The directories that the modem may name.
class VelmarFileDirectoryTable {
  public:
    // A copy of the path of directory `id`, ending in "/"; "UNKNOWN" when `id` names none. Any
    // thread.
    static std::string FindDirectoryFromId(velmar_message::FileDirectory id);

    // Whether `id` names a directory that takes files. Any thread.
    static bool Contains(velmar_message::FileDirectory id);

  private:
    // The row of directory `id`; null when `id` names none.
    static const VelmarFileDirectory* FindRow(velmar_message::FileDirectory id);

    static VelmarFileDirectory table[3];
};
