#include "bench/service_phone.h"

#include <filesystem>

#include "sim/phone/phone_state.h"
#include "sim/ril/radio_layout.h"

namespace velmar_bench {

using velmar_sim::ChildProcess;

std::unique_ptr<ChildProcess> ServicePhone::Run(const std::string& executable,
                                                const std::string& argument,
                                                const ChildProcess::OutputReader& log) {
    velmar_sim::Launch launch;
    launch.executable = executable;
    launch.arguments = {"velmar", argument};
    const auto libraries = std::filesystem::path(executable).parent_path() / "../lib";
    launch.variables = {std::string(velmar_phone::kRootVariable) + "=" + phone_folder.root(),
                        "LD_LIBRARY_PATH=" + (libraries / velmar_radio::kLibraryFolder /
                                              velmar_radio::kFullVariant)
                                                     .string()};
    return std::make_unique<ChildProcess>(launch, nullptr, log);
}

std::string ProgramBesideThis(const std::string& name) {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path() / name;
}

}  // namespace velmar_bench
