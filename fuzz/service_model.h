#pragma once

#include <map>
#include <optional>
#include <string>

#include "proto/velmar_message.pb.h"

#include "file_tree.h"

// What the service is required to do with the modem's messages, written down as plainly as can be:
// it knows the phone as a picture of its files and is slow.
//
// It leaves out what an input of a few kilobytes does not reach: logs of more than 1 MiB are not
// put aside.
class ServiceModel {
  public:
    struct Outcome {
        // A VelmarStatus.
        int status = 0;
        // What the service writes.
        std::optional<velmar_message::VelmarMessage> answer = std::nullopt;
        // The last line that it logs: the priority's number, a blank and the text. Empty where the
        // line is not looked at.
        std::string log_line = "";
    };

    // A service in a phone that holds `phone_files`. `phone_root` is the real phone's folder: the
    // size of a directory is looked up there.
    ServiceModel(FileTree phone_files, std::string phone_root);

    // What is to become of one received message.
    Outcome Receive(const velmar_message::VelmarMessage& message);

    // What the phone is to hold now.
    FileTree files;

    // The last response for each outstanding token, encoded; empty while there is none.
    std::map<uint32_t, std::string> responses;

  private:
    struct Stored {
        bool is_stored;
        velmar_message::FileMessageResult file_result;
    };

    Outcome OnRequest(const velmar_message::VelmarMessage& message);
    Outcome OnIndication(const velmar_message::VelmarMessage& message);
    Outcome OnFileRequest(const velmar_message::VelmarMessage& message);
    Outcome OnProperty(const velmar_message::VelmarMessage& message);
    Outcome OnTemperature(const velmar_message::VelmarMessage& message);
    Outcome OnModemLine(const velmar_message::UserspaceLogMessage& message);
    int OnReport(const velmar_message::ModemStatMessage& message);
    int OnLog(const velmar_message::ExtendedLogMessage& message);

    template <typename FileWrite>
    Stored Store(const FileWrite& write);
    bool MoveIntoPlace(const std::string& from, const std::string& directory,
                       const std::string& to);
    std::optional<uint64_t> SizeOf(const std::string& path);
    bool SetProperty(const std::string& name, const std::string& value);

    std::string root;
};
