#include "service/velmar_file_directory.h"

#include <utility>

using velmar_message::FileDirectory;

namespace {

constexpr char kUnknown[] = "UNKNOWN";

}  // namespace

VelmarFileDirectory::VelmarFileDirectory(FileDirectory directory_id, std::string path)
    : id(directory_id), prefix(std::move(path)) {}

VelmarFileDirectory::~VelmarFileDirectory() = default;

// NOLINTNEXTLINE(cert-err58-cpp): without memory for it there is nothing to run.
VelmarFileDirectory VelmarFileDirectoryTable::table[3] = {
        {velmar_message::FILE_DIRECTORY_UNKNOWN, kUnknown},
        {velmar_message::FILE_DIRECTORY_MDS, "/data/vendor/radio/mds/"},
        {velmar_message::FILE_DIRECTORY_REPLAY, "/mnt/vendor/modem_userdata/replay/"},
};

std::string VelmarFileDirectoryTable::FindDirectoryFromId(FileDirectory id) {
    if (id == table[1].id) return table[1].prefix;
    if (id == table[2].id) return table[2].prefix;
    return kUnknown;
}
