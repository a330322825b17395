#include <android-base/stringprintf.h>
#include <errno.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "phone_test_case.h"

using android::base::StringPrintf;
using testing::EndsWith;
using testing::Mock;
using testing::Return;
using velmar_sim::FaultRule;

namespace {

constexpr char kTempDirectory[] = "/data/vendor/radio/modem_temp_file/";
constexpr char kTempFile[] = "/data/vendor/radio/modem_temp_file/f";
constexpr char kMdsDirectory[] = "/data/vendor/radio/mds/";
constexpr char kTarget[] = "/data/vendor/radio/mds/f";
constexpr char kRadioFiles[] = "/data/vendor/radio/*";

// What the modem is told.
constexpr char kStored[] = "SUCCESS FILE_RESULT_DEFAULT";
constexpr char kFailed[] = "FAILURE FILE_RESULT_DEFAULT";
constexpr char kBadDirectory[] = "FAILURE FILE_RESULT_BAD_DIRECTORY";
constexpr char kBadOffset[] = "FAILURE FILE_RESULT_BAD_OFFSET";

constexpr char kAppended[] = "I size: 0x2";
constexpr char kMoved[] = "E Moved file into target path";

// Files are told by mode and content.
constexpr char kNone[] = "none";
// What an earlier transfer has left in the target.
constexpr char kEarlier[] = "600 earlier";

FaultRule Fault(const char* call, const char* path, int error, int times = 1, int skip = 0) {
    return {call, path, error, 0, times, skip};
}

FaultRule NoFault() {
    return {};
}

// A chunk and all that comes of it.
struct Case {
    const char* what;
    FaultRule fault;
    // What earlier chunks have left in the temporary file; null for no such file.
    const char* gathered;
    const char* data;
    unsigned int offset;
    unsigned int max_data_size;
    const char* response;
    // The last line that is logged.
    const char* line;
    const char* temp_after;
    const char* target_after;
};

// Where the lines of an indication differ from those of a request.
std::string LineOfIndication(const std::string& line) {
    const std::string failed_to_open = "E Failed to open ";
    if (line == kMoved) return "E Move file into target path done";
    if (line.find(failed_to_open) != 0) return line;
    return "E Fail to open " + line.substr(failed_to_open.size());
}

std::string Fields(const std::string& directory, const std::string& data, unsigned int offset,
                   unsigned int max_data_size) {
    return "file_name: 'f' file_dir: FILE_DIRECTORY_" + directory + " data: '" + data +
           "' offset: " + std::to_string(offset) +
           " max_data_size: " + std::to_string(max_data_size);
}

std::string AsRequest(const std::string& fields) {
    return "token: 3 file_message { file_write_request { " + fields + " } }";
}

std::string AsIndication(const std::string& fields) {
    return "file_message { file_write_indication { " + fields + " } }";
}

class FileTest : public ServiceTestCase {
  protected:
    // No file's mode may depend on it but that of a file that is being written.
    FileTest() { umask(077); }

    // A response that cannot be sent is told apart from a chunk that could not be stored.
    void ExpectResponse(const std::string& outcome) {
        const size_t blank = outcome.find(' ');
        EXPECT_CALL(handler,
                    SendResponse(IsMessage("type: RESPONSE message_id: 9 token: 3 result: " +
                                           outcome.substr(0, blank) +
                                           " file_message { file_write_response { file_result:" +
                                           outcome.substr(blank) + " } }")))
                .WillOnce(Return(kStatusWriteFailed));
    }

    void Arrange(const Case& row) {
        injector.Clear();
        folder.Remove(kTempFile);
        if (row.gathered != nullptr) folder.WriteFile(kTempFile, row.gathered, 0600);
        folder.WriteFile(kTarget, "earlier", 0600);
        if (!row.fault.call.empty()) injector.Add(row.fault);
    }

    void ExpectLineAndFiles(const Case& row, const std::string& line) {
        Mock::VerifyAndClearExpectations(&handler);
        EXPECT_THAT(log.TakeLines(), EndsWith("; " + line));
        EXPECT_EQ(File(kTempFile), row.temp_after);
        EXPECT_EQ(File(kTarget), row.target_after);
    }

    std::string File(const char* path) {
        const auto content = folder.ReadFile(path);
        return content ? StringPrintf("%o %s", *folder.Mode(path), content->c_str()) : kNone;
    }
};

TEST_F(FileTest, ChunksAreStoredOrRefusedByTheStepThatFails) {
    const std::vector<Case> cases = {
            {"the first chunk", NoFault(), nullptr, "ab", 0, 3, kStored, kAppended, "664 ab",
             kEarlier},
            {"the next chunk", NoFault(), "ab", "cd", 2, 5, kStored, kAppended, "664 abcd",
             kEarlier},
            {"the last chunk", NoFault(), "ab", "c", 2, 3, kStored, kMoved, kNone, "666 abc"},
            {"offset 0 begins anew", NoFault(), "left", "ab", 0, 3, kStored, kAppended, "664 ab",
             kEarlier},
            {"the middle of a file that has no beginning", NoFault(), nullptr, "ab", 5, 8, kStored,
             kAppended, "664 ab", kEarlier},
            {"too much", NoFault(), "123", "45", 3, 4, kStored, kAppended, "664 12345", kEarlier},
            {"before the end of what is there", NoFault(), "abc", "x", 2, 9, kBadOffset,
             "E Bad offset 0x2 comparing to the expected one: 0x3", "600 abc", kEarlier},
            {"behind it", NoFault(), "abcdefghijk", "x", 12, 13, kBadOffset,
             "E Bad offset 0xC comparing to the expected one: 0xB", "600 abcdefghijk", kEarlier},
            {"behind the file", Fault("stat", kTempDirectory, ENOENT), nullptr, "x", 10, 10,
             kBadOffset, "E Bad max_data_size 0xA or offset 0xA", kNone, kEarlier},
            {"in no file", NoFault(), nullptr, "", 0, 0, kBadOffset,
             "E Bad max_data_size 0x0 or offset 0x0", kNone, kEarlier},
            {"the largest offset", NoFault(), nullptr, "x", 4294967295, 1, kBadOffset,
             "E Bad max_data_size 0x1 or offset 0xFFFFFFFF", kNone, kEarlier},
            {"no temporary directory", Fault("stat", kTempDirectory, ENOENT), "abc", "a", 0, 1,
             kFailed,
             "E Temp file directory /data/vendor/radio/modem_temp_file/ does not exist or "
             "permission denied.",
             "600 abc", kEarlier},
            {"the temporary file cannot be opened", Fault("open", kTempFile, EACCES), "abc", "x", 3,
             4, kFailed, "E Failed to open /data/vendor/radio/modem_temp_file/f", "600 abc",
             kEarlier},
            {"the disk is full", Fault("write", kTempFile, ENOSPC), nullptr, "a", 0, 1, kFailed,
             "E Failed to write temp file correctly", "600 ", kEarlier},
            {"the temporary file is gone", Fault("stat", kTempFile, ENOENT), nullptr, "a", 0, 1,
             kFailed,
             "E Temp file /data/vendor/radio/modem_temp_file/f does not exist or permission "
             "denied.",
             "664 a", kEarlier},
            {"no target directory", Fault("stat", kMdsDirectory, ENOENT), nullptr, "a", 0, 1,
             kFailed, "E File/path /data/vendor/radio/mds/ does not exist or permission denied.",
             "664 a", kNone},
            {"the target cannot be opened", Fault("open", kTarget, EROFS), nullptr, "a", 0, 1,
             kFailed, "E File transfer failed.", kNone, kNone},
            {"the temporary file cannot be read", Fault("open", kTempFile, EACCES, 1, 1), nullptr,
             "a", 0, 1, kFailed, "E File transfer failed.", kNone, "666 "},
            {"nothing can be deleted", Fault("unlink", kRadioFiles, EACCES, 9), nullptr, "a", 0, 1,
             kStored, kMoved, "664 a", "666 a"},
            {"nothing can be given a mode", Fault("chmod", kRadioFiles, EPERM, 9), nullptr, "a", 0,
             1, kStored, kMoved, kNone, "600 a"},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(row.what);
        const std::string fields = Fields("MDS", row.data, row.offset, row.max_data_size);
        const bool is_stored = row.response == kStored;
        Arrange(row);
        ExpectResponse(row.response);
        EXPECT_EQ(Request(AsRequest(fields)), is_stored ? kStatusWriteFailed : kStatusNotFound);
        ExpectLineAndFiles(row, row.line);
        Arrange(row);
        EXPECT_EQ(Indicate(AsIndication(fields)), is_stored ? kStatusSuccess : kStatusNotFound);
        ExpectLineAndFiles(row, LineOfIndication(row.line));
    }
}

TEST_F(FileTest, EachStepIsLogged) {
    folder.WriteFile(kTempFile, "0123456789");
    ExpectResponse(kStored);
    Request(AsRequest(Fields("MDS", "a", 10, 12)));
    EXPECT_EQ(log.TakeLines(),
              "I Got File write request; I file dir: 1 and name: f; I offset: 0xA, size: 0xC; "
              "I prefix: /data/vendor/radio/mds/\nfile_name: f; "
              "I Handle file write operation to path: /data/vendor/radio/mds/f for offset: 0xA "
              "(total: 0xC); I size: 0x1");
    Indicate(AsIndication(Fields("REPLAY", "b", 11, 13)));
    EXPECT_EQ(log.TakeLines(),
              "I Got File write indication; I file dir: 2 and name: f; I offset: 0xB, size: 0xD; "
              "I prefix: /mnt/vendor/modem_userdata/replay/\nfile_name: f; "
              "E Handle file write operation to path: /mnt/vendor/modem_userdata/replay/f for "
              "offset: 0xB (total: 0xD); I size: 0x1");
}

TEST_F(FileTest, ChunksWithoutADirectoryOrANameAreRefused) {
    const std::string chunk = Fields("MDS", "a", 0, 1);
    for (const char* directory : {"UNKNOWN", "RESERVED"}) {
        ExpectResponse(kBadDirectory);
        EXPECT_EQ(Request(AsRequest(Fields(directory, "a", 1, 1))), kStatusNotFound);
        EXPECT_EQ(Indicate(AsIndication(Fields(directory, "a", 1, 1))), kStatusNotFound);
        EXPECT_THAT(log.TakeLines(), EndsWith(directory[0] == 'U' ? "; E Bad file directory: 0"
                                                                  : "; E Bad file directory: 3"));
    }
    // Malformed ones get no response.
    EXPECT_EQ(Request(AsRequest("")), kStatusInvalid);
    EXPECT_EQ(Request(AsRequest("file_dir: FILE_DIRECTORY_MDS")), kStatusInvalid);
    EXPECT_EQ(Request(AsRequest("legacy_field: 'x' " + chunk)), kStatusInvalid);
    EXPECT_EQ(Indicate(AsIndication("file_name: 'f'")), kStatusInvalid);
    EXPECT_EQ(Indicate(AsIndication("file_dir: FILE_DIRECTORY_MDS")), kStatusInvalid);
    EXPECT_EQ(log.TakeLines(),
              "I Got File write request; E FileWriteRequest requires a file_dir; "
              "I Got File write request; E FileWriteRequest requires a file_name; "
              "I Got File write request; E Old FileWriteRequest is no longer supported; "
              "I Got File write indication; E FileWriteIndication requires a file_dir; "
              "I Got File write indication; E FileWriteIndication requires a file_name");
    EXPECT_EQ(File(kTempFile), kNone);
    // An empty field of the old form is none, and in an indication it is not looked at.
    ExpectResponse(kStored);
    EXPECT_EQ(Request(AsRequest("legacy_field: '' " + chunk)), kStatusWriteFailed);
    EXPECT_EQ(Indicate(AsIndication("legacy_field: 'x' " + chunk)), kStatusSuccess);
}

}  // namespace
