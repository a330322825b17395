#pragma once

namespace velmar_sim {

// What --version says: the version, the commit if it is known, the release of protobuf. Generated
// by every build (cmake/version.cmake).
extern const char kVersionText[];

}  // namespace velmar_sim
