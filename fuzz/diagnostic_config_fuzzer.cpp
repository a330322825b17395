// Input: the text of a configuration file, which serves as both of the diagnostics' configurations.

#include <cstddef>
#include <cstdint>

#include "fuzz_phone.h"
#include "require.h"
#include "service/velmar_service_handler.h"

using velmar_message::VelmarMessage;

namespace {

// Each request is about a module of the text, in order, and says only what an entry can say.
void CheckStatistics(const std::string& text) {
    size_t at = 0;
    for (const VelmarMessage& message :
         RequestsFor("/data/vendor/radio/modem_stat.conf", text, kCommandDebugStatConfig)) {
        const auto& request = message.modem_stat_message().enable_request();
        const std::string& module = request.module();
        Require(!module.empty() && module.find_first_of(":|\r\n") == std::string::npos,
                "not a module's name:", module);
        at = text.find(module, at);
        Require(at != std::string::npos, "a module that is not in the text:", module);
        at += module.size();
        Require(request.value() >= 0 && request.has_type() == (request.type() != 0),
                "a value or type that says nothing:", module);
    }
}

// Each line is the name in one request, which an empty line leaves out.
void CheckLogging(const std::string& text) {
    std::string names;
    for (const VelmarMessage& message :
         RequestsFor("/data/vendor/radio/modem_userspace_logging.conf", text,
                     kCommandUserspaceLogEnable)) {
        const std::string& name = message.userspace_log_message().enable_request().name();
        Require(message.has_userspace_log_message() == !name.empty(), "a payload without a name");
        names += name + "\n";
    }
    const bool is_ended = text.empty() || text.back() == '\n';
    Require(names == text + (is_ended ? "" : "\n"), "not the lines of the text:", names);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    CheckStatistics(text);
    CheckLogging(text);
    return 0;
}
