#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "android-base/unique_fd.h"

#include "file_tree.h"
#include "handler/velmar_message_handler.h"
#include "sim/modem/phone_folder.h"

// When it is, for the service: 2023-11-14 22:13:20.123 UTC. As in an extended log:
constexpr char kTimeStamp[] = "11-14 22:13:20.123\n";

// The umask of the process, which must not show in the modes of files.
constexpr mode_t kUmask = 077;

// Tokens of requests that await a response of the modem.
constexpr uint32_t kOutstandingTokens[] = {0, 1, 2, 0xFFFFFFFE};

// The whole service, none of its threads: it receives when it is told to.
class FuzzHandler : public VelmarMessageHandler {
  public:
    FuzzHandler();

    // Keeps the request instead of sending it, and says that no response came.
    int SendRequest(SitMessage* message, unsigned int timeout_seconds) override;

    // Makes just the outstanding tokens' requests outstanding.
    void ResetRequests();

    // The requests kept so far.
    std::vector<velmar_message::VelmarMessage> requests;
};

// The process as a service in a phone of its own, with the modem's side of its channel. Its log
// goes nowhere, and it starts no thread. Operations that find something wrong end the process.
class FuzzPhone {
  public:
    // The process's one, booted by the first call and removed when the process ends.
    static FuzzPhone& Get();

    FuzzPhone(const FuzzPhone&) = delete;
    FuzzPhone& operator=(const FuzzPhone&) = delete;

    // Has the service process one message; returns what that returns.
    int Deliver(const std::string& bytes);

    // The messages that the service has written since the last call.
    std::vector<std::string> TakeAnswers();

    // The last line that the service has logged: its priority's number, a blank and the text.
    const std::string& last_log_line() const;

    // The files of the phone. Beside the phone's folder, nothing may have changed.
    FileTree ReadFiles() const;

    // Brings the phone, which holds `now`, back to the state after boot.
    void Reset(const FileTree& now);

    // What the phone holds after boot.
    const FileTree& boot_files() const { return files_at_boot; }

    const velmar_sim::PhoneFolder& folder() const { return phone_folder; }
    FuzzHandler& handler() { return *service; }

  private:
    FuzzPhone();

    // Holds the phone's folder and nothing else.
    velmar_sim::TemporaryFolder parent_folder;
    velmar_sim::PhoneFolder phone_folder;
    FileTree files_at_boot;
    android::base::unique_fd boot_listener;
    android::base::unique_fd channel;
    // Never freed: the process has it for life, as the real one has.
    FuzzHandler* service;
};
