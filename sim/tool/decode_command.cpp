#include "sim/tool/decode_command.h"

#include <memory>
#include <string>

#include "sim/tool/bad_input.h"
#include "sim/tool/session.h"
#include "sim/tool/trace.h"

namespace velmar_sim {

namespace {

constexpr char kFooter[] =
        "The content of a trace tells what it is: JSON lines or a capture as --trace writes them, "
        "or lines\n\"modem HEX...\" and \"phone HEX...\".\n"
        "Exit status: 0 shown, 2 bad usage or a bad trace.";

struct Options {
    std::string path;
    SessionOptions session;
};

int Decode(const Options& options) {
    // Before the writers: nothing is overwritten for the sake of a file that cannot be read.
    InputFile file = OpenInput(options.path);
    SessionWriters writers(options.session);
    ReadTrace(options.path, std::move(file), [&writers](const Event& event, int) {
        for (const auto& writer : writers.all()) writer->Write(event);
    });
    writers.Finish();
    return kPassed;
}

}  // namespace

void AddDecodeCommand(CLI::App* app, int* status) {
    CLI::App* decode = app->add_subcommand("decode", "Shows a trace as run does");
    // The command lives as long as its callback.
    const auto options = std::make_shared<Options>();
    decode->add_option("TRACE", options->path, "A trace; - is standard input")->required();
    AddWriterOptions(decode, &options->session);
    decode->footer(kFooter);
    decode->callback([options, status] { *status = Decode(*options); });
}

}  // namespace velmar_sim
