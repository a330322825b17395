#include <errno.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "phone_test_case.h"
#include "service/payload_messages.h"
#include "service/velmar_service_handler.h"

using testing::ElementsAre;
using testing::IsEmpty;
using velmar_sim::kUnfinishedFiles;

namespace {

constexpr char kTempFile[] = "/data/vendor/radio/modem_temp_file/f";

// Keeps the responses instead of sending them, and says that they could not be sent.
class Refuser : public TestHandler {
  public:
    int SendResponse(SitMessage* message) override {
        responses.push_back(message->GetVelmarMessage()->ShortDebugString());
        return kStatusWriteFailed;
    }
    std::vector<std::string> responses;
};

class FileTest : public PhoneTestCase {
  protected:
    int Request(const std::string& fields) {
        return service.OnReceiveFileWriteRequest(
                Receive("type: REQUEST token: 3 file_message { file_write_request { " + fields +
                        " } }")
                        .get());
    }

    int Indicate(const std::string& fields) {
        return service.OnReceiveFileWriteIndication(
                Receive("type: INDICATION file_message { file_write_indication { " + fields +
                        " } }")
                        .get());
    }

    // A phone without files of earlier transfers.
    void Reset() {
        injector.Clear();
        for (const char* directory : {kUnfinishedFiles, velmar_sim::kMdsFiles}) {
            folder.Remove(directory);
            folder.MakeDirectories(directory);
        }
        handler.responses.clear();
    }

    Refuser handler;
    VelmarServiceHandler service{&handler};
};

std::string Answer(const std::string& result, const std::string& file_result) {
    return "type: RESPONSE message_id: 9 token: 3 result: " + result +
           " file_message { file_write_response { file_result: " + file_result + " } }";
}

mode_t Umask() {
    const mode_t now = umask(0);
    umask(now);
    return now;
}

TEST_F(FileTest, ChunksGiveTheirStatusAnswerAndLastLineAndKeepTheUmask) {
    const std::string stored = Answer("SUCCESS", "FILE_RESULT_DEFAULT");
    const std::string failed = Answer("FAILURE", "FILE_RESULT_DEFAULT");
    const std::string bad_offset = Answer("FAILURE", "FILE_RESULT_BAD_OFFSET");
    const std::string bad_directory = Answer("FAILURE", "FILE_RESULT_BAD_DIRECTORY");
    struct Case {
        const char* what;
        std::vector<velmar_sim::FaultRule> faults;
        // A directory that is missing.
        const char* missing;
        // What an earlier chunk has left; null for no file.
        const char* gathered;
        const char* fields;
        std::string answer;
        const char* request_line;
        // Null: the same.
        const char* indication_line;
    };
    const Case cases[] = {
            {"incomplete",
             {},
             nullptr,
             "a",
             "file_dir: FILE_DIRECTORY_MDS file_name: 'f' data: 'bc' offset: 1 max_data_size: 4",
             stored,
             "I size: 0x2",
             nullptr},
            {"complete",
             {},
             nullptr,
             "a",
             "file_dir: FILE_DIRECTORY_MDS file_name: 'f' data: 'bc' offset: 1 max_data_size: 3",
             stored,
             "E Moved file into target path",
             "E Move file into target path done"},
            {"the directory is looked at before the offset",
             {},
             nullptr,
             nullptr,
             "file_dir: FILE_DIRECTORY_UNKNOWN file_name: 'f' offset: 1",
             bad_directory,
             "E Bad file directory: 0",
             nullptr},
            {"the offset is looked at before the temporary directory",
             {},
             kUnfinishedFiles,
             nullptr,
             "file_dir: FILE_DIRECTORY_MDS file_name: 'f' offset: 1 max_data_size: 1",
             bad_offset,
             "E Bad max_data_size 0x1 or offset 0x1",
             nullptr},
            {"no temporary directory",
             {},
             kUnfinishedFiles,
             nullptr,
             "file_dir: FILE_DIRECTORY_MDS file_name: 'f' data: 'a' max_data_size: 1",
             failed,
             "E Temp file directory /data/vendor/radio/modem_temp_file/ does not exist or "
             "permission denied.",
             nullptr},
            {"another position",
             {},
             nullptr,
             "abc",
             "file_dir: FILE_DIRECTORY_MDS file_name: 'f' data: 'a' offset: 2 max_data_size: 4",
             bad_offset,
             "E Bad offset 0x2 comparing to the expected one: 0x3",
             nullptr},
            {"the temporary file cannot be opened",
             {{"open", kTempFile, EACCES}},
             nullptr,
             "abc",
             "file_dir: FILE_DIRECTORY_MDS file_name: 'f' data: 'a' offset: 3 max_data_size: 4",
             failed,
             "E Failed to open /data/vendor/radio/modem_temp_file/f",
             "E Fail to open /data/vendor/radio/modem_temp_file/f"},
            {"the disk is full",
             {{"write", kTempFile, ENOSPC}},
             nullptr,
             nullptr,
             "file_dir: FILE_DIRECTORY_MDS file_name: 'f' data: 'a' max_data_size: 1",
             failed,
             "E Failed to write temp file correctly",
             nullptr},
            {"the temporary file is gone",
             {{"stat", kTempFile, ENOENT}},
             nullptr,
             nullptr,
             "file_dir: FILE_DIRECTORY_MDS file_name: 'f' data: 'a' max_data_size: 1",
             failed,
             "E Temp file /data/vendor/radio/modem_temp_file/f does not exist or permission "
             "denied.",
             nullptr},
            {"no target directory",
             {},
             velmar_sim::kMdsFiles,
             nullptr,
             "file_dir: FILE_DIRECTORY_MDS file_name: 'f' data: 'a' max_data_size: 1",
             failed,
             "E File/path /data/vendor/radio/mds/ does not exist or permission denied.",
             nullptr},
            {"the target cannot be opened",
             {{"open", "/data/vendor/radio/mds/f", EROFS}},
             nullptr,
             nullptr,
             "file_dir: FILE_DIRECTORY_MDS file_name: 'f' data: 'a' max_data_size: 1",
             failed,
             "E File transfer failed.",
             nullptr},
            {"the temporary file cannot be read back",
             {{"open", kTempFile, EACCES, 0, 1, 1}},
             nullptr,
             nullptr,
             "file_dir: FILE_DIRECTORY_MDS file_name: 'f' data: 'a' max_data_size: 1",
             failed,
             "E File transfer failed.",
             nullptr},
            {"nothing can be deleted or given a mode",
             {{"unlink", "/data/vendor/radio/*", EACCES, 0, 9},
              {"chmod", "/data/vendor/radio/*", EPERM, 0, 9}},
             nullptr,
             nullptr,
             "file_dir: FILE_DIRECTORY_MDS file_name: 'f' data: 'a' max_data_size: 1",
             stored,
             "E Moved file into target path",
             "E Move file into target path done"},
    };
    const mode_t before = Umask();
    const auto arrange = [this](const Case& row) {
        Reset();
        if (row.gathered != nullptr) folder.WriteFile(kTempFile, row.gathered);
        if (row.missing != nullptr) folder.Remove(row.missing);
        for (const auto& fault : row.faults) injector.Add(fault);
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(row.what);
        const bool is_stored = row.answer == stored;
        arrange(row);
        // A failure is told apart from an answer that could not be sent.
        EXPECT_EQ(Request(row.fields), is_stored ? kStatusWriteFailed : kStatusNotFound);
        EXPECT_THAT(handler.responses, ElementsAre(row.answer));
        EXPECT_EQ(log.Lines().back(), row.request_line);
        EXPECT_EQ(Umask(), before);

        arrange(row);
        EXPECT_EQ(Indicate(row.fields), is_stored ? kStatusSuccess : kStatusNotFound);
        EXPECT_THAT(handler.responses, IsEmpty());
        EXPECT_EQ(log.Lines().back(),
                  row.indication_line != nullptr ? row.indication_line : row.request_line);
        EXPECT_EQ(Umask(), before);
    }
}

TEST_F(FileTest, MessagesThatNameNoFileAreDropped) {
    for (const char* text : {"", "property_message {}", "file_message {}",
                             "file_message { file_write_response {} }"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ(service.OnReceiveFileWriteRequest(Receive(text).get()), kStatusInvalid);
        EXPECT_EQ(service.OnReceiveFileWriteIndication(Receive(text).get()), kStatusInvalid);
    }
    const char chunk[] = "file_dir: FILE_DIRECTORY_MDS file_name: 'f' data: 'a' max_data_size: 1";
    auto request = Receive(std::string("file_message { file_write_request { ") + chunk + " } }");
    EXPECT_EQ(service.OnReceiveFileWriteIndication(request.get()), kStatusInvalid);
    auto indication =
            Receive(std::string("file_message { file_write_indication { ") + chunk + " } }");
    EXPECT_EQ(service.OnReceiveFileWriteRequest(indication.get()), kStatusInvalid);
    EXPECT_EQ(service.OnReceiveFileWriteRequest(nullptr), kStatusInvalid);
    EXPECT_EQ(service.OnReceiveFileWriteIndication(nullptr), kStatusInvalid);
    EXPECT_THAT(log.Lines(), IsEmpty());

    EXPECT_EQ(Request("legacy_field: 'x'"), kStatusInvalid);
    EXPECT_EQ(Request(""), kStatusInvalid);
    EXPECT_EQ(Request("file_dir: FILE_DIRECTORY_MDS"), kStatusInvalid);
    EXPECT_EQ(Indicate("legacy_field: 'x'"), kStatusInvalid);
    EXPECT_EQ(Indicate("file_dir: FILE_DIRECTORY_MDS"), kStatusInvalid);
    // A number without a name reads as none at all.
    std::string unnamed =
            Encode("file_message { file_write_request { file_name: 'f' file_dir: "
                   "FILE_DIRECTORY_RESERVED } }");
    unnamed.back() = 4;
    SitMessage request_to_unnamed(unnamed.data(), static_cast<int>(unnamed.size()));
    EXPECT_EQ(service.OnReceiveFileWriteRequest(&request_to_unnamed), kStatusInvalid);
    EXPECT_THAT(log.Lines(), ElementsAre("E Old FileWriteRequest is no longer supported",
                                         "E FileWriteRequest requires a file_dir",
                                         "E FileWriteRequest requires a file_name",
                                         "E FileWriteIndication requires a file_dir",
                                         "E FileWriteIndication requires a file_name",
                                         "E FileWriteRequest requires a file_dir"));
    EXPECT_THAT(handler.responses, IsEmpty());
}

TEST(FileMessageTest, FillingAgainReplacesTheMemberAndKeepsTheResult) {
    auto request = Receive("type: REQUEST file_message { file_write_request {} }");
    VelmarFileMessage message(velmar_message::RESPONSE, request.get());
    message.GetSitMessage()->GetVelmarMessage()->mutable_property_message();
    message.SetFileMessageResult(velmar_message::FILE_RESULT_BAD_OFFSET);
    message.FillWriteResponse();
    EXPECT_EQ(message.GetSitMessage()->GetVelmarMessage()->ShortDebugString(),
              "type: RESPONSE message_id: 9 file_message { file_write_response { file_result: "
              "FILE_RESULT_BAD_OFFSET } }");
}

class TemperatureTest : public FileTest {
  protected:
    int Report(const std::string& text) {
        return service.OnReceiveModemTemperatureRequest(Receive(text).get());
    }
};

TEST_F(TemperatureTest, ReportsAreAnsweredWhateverTheDriverDoes) {
    const char report[] =
            "token: 3 modem_temperature_message { set_request { sensors { sensor: 7 temperature: "
            "-1 } } }";
    const std::string node = velmar_sim::kThermalNode;
    const std::vector<velmar_sim::FaultRule> faults = {
            {"close", node, EIO}, {"open", node, EACCES}, {"write", node, EIO}};
    for (const auto& fault : faults) {
        SCOPED_TRACE(fault.call);
        injector.Clear();
        injector.Add(fault);
        EXPECT_EQ(Report(report), kStatusWriteFailed);
        EXPECT_EQ(handler.responses.back(),
                  "type: RESPONSE message_id: 10 token: 3 "
                  "modem_temperature_message { set_response { } }");
        // Only the failing close comes after the write.
        const std::vector<std::string> writes(fault.call == "close" ? 1 : 0, "7 0 -1\n");
        EXPECT_EQ(thermal.TakeWrites(), writes);
    }
    EXPECT_THAT(log.Lines(), ElementsAre("D Temp sensor 7 - Update 0 - Temperature -1",
                                         "E Failed to open modem temperature driver",
                                         "D Temp sensor 7 - Update 0 - Temperature -1"));
}

TEST_F(TemperatureTest, WhatSetsNoTemperaturesIsDropped) {
    for (const char* text : {"", "file_message {}", "modem_temperature_message {}",
                             "modem_temperature_message { set_response {} }"}) {
        EXPECT_EQ(Report(text), kStatusInvalid) << text;
    }
    EXPECT_EQ(service.OnReceiveModemTemperatureRequest(nullptr), kStatusInvalid);
    EXPECT_THAT(handler.responses, IsEmpty());
    EXPECT_THAT(thermal.TakeWrites(), IsEmpty());
}

}  // namespace
