#include <android-base/stringprintf.h>
#include <android-base/strings.h>
#include <errno.h>
#include <sys/stat.h>

#include <string>
#include <utility>

#include "phone_test_case.h"
#include "service/velmar_file_directory.h"

using android::base::StringPrintf;
using android::base::StringReplace;
using testing::EndsWith;
using testing::Return;
using velmar_sim::FaultRule;

namespace {

constexpr char kTempDirectory[] = "/data/vendor/radio/modem_temp_file/";
constexpr char kTempFile[] = "/data/vendor/radio/modem_temp_file/f";
constexpr char kTarget[] = "/data/vendor/radio/mds/f";
constexpr char kRadioFiles[] = "/data/vendor/radio/*";

// What the modem is told.
constexpr char kStored[] = "SUCCESS FILE_RESULT_DEFAULT";
constexpr char kFailed[] = "FAILURE FILE_RESULT_DEFAULT";
constexpr char kBadOffset[] = "FAILURE FILE_RESULT_BAD_OFFSET";

constexpr char kAppended[] = "I size: 0x2";
constexpr char kMoved[] = "E Moved file into target path";

// Files are told by mode and content.
constexpr char kNone[] = "none";
// What an earlier transfer has left in the target.
constexpr char kEarlier[] = "600 earlier";

// Faults of the first matching call, or of another.
FaultRule Fault(const char* call, const char* path, int error, int times = 1, int skip = 0) {
    return {call, path, error, 0, times, skip};
}

// A chunk and all that comes of it.
struct Case {
    const char* what;
    // What earlier chunks have left in the temporary file; null for no such file.
    const char* gathered;
    const char* data;
    unsigned int offset;
    unsigned int max_data_size;
    const char* response;
    // The last line that is logged.
    const char* line;
    const char* temp_after;
    const char* target_after = kEarlier;
    FaultRule fault = {};
};

// Where the lines of an indication differ from those of a request.
std::string LineOfIndication(const std::string& line) {
    if (line == kMoved) return "E Move file into target path done";
    return StringReplace(line, "Failed to open", "Fail to open", /*all=*/false);
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
        testing::Mock::VerifyAndClearExpectations(&handler);
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
    const Case cases[] = {
            {"first chunk", nullptr, "ab", 0, 3, kStored, kAppended, "664 ab"},
            {"next chunk", "ab", "cd", 2, 5, kStored, kAppended, "664 abcd"},
            {"last chunk", "ab", "c", 2, 3, kStored, kMoved, kNone, "666 abc"},
            {"offset 0 begins anew", "left", "ab", 0, 3, kStored, kAppended, "664 ab"},
            {"middle without a beginning", nullptr, "ab", 5, 8, kStored, kAppended, "664 ab"},
            {"too much", "123", "45", 3, 4, kStored, kAppended, "664 12345"},
            {"before the end of what is there", "abcdefghijk", "x", 10, 99, kBadOffset,
             "E Bad offset 0xA comparing to the expected one: 0xB", "600 abcdefghijk"},
            {"behind the file", nullptr, "x", 4294967295, 4294967295, kBadOffset,
             "E Bad max_data_size 0xFFFFFFFF or offset 0xFFFFFFFF", kNone, kEarlier,
             Fault("stat", kTempDirectory, ENOENT)},
            {"no temporary directory", "abc", "a", 0, 1, kFailed,
             "E Temp file directory /data/vendor/radio/modem_temp_file/ does not exist or "
             "permission denied.",
             "600 abc", kEarlier, Fault("stat", kTempDirectory, ENOENT)},
            {"temporary file cannot be opened", "abc", "x", 3, 4, kFailed,
             "E Failed to open /data/vendor/radio/modem_temp_file/f", "600 abc", kEarlier,
             Fault("open", kTempFile, EACCES)},
            {"disk is full", nullptr, "a", 0, 1, kFailed, "E Failed to write temp file correctly",
             "600 ", kEarlier, Fault("write", kTempFile, ENOSPC)},
            {"temporary file is gone", nullptr, "a", 0, 1, kFailed,
             "E Temp file /data/vendor/radio/modem_temp_file/f does not exist or permission "
             "denied.",
             "664 a", kEarlier, Fault("stat", kTempFile, ENOENT)},
            {"no target directory", nullptr, "a", 0, 1, kFailed,
             "E File/path /data/vendor/radio/mds/ does not exist or permission denied.", "664 a",
             kNone, Fault("stat", "/data/vendor/radio/mds/", ENOENT)},
            {"target cannot be opened", nullptr, "a", 0, 1, kFailed, "E File transfer failed.",
             kNone, kNone, Fault("open", kTarget, EROFS)},
            {"temporary file cannot be read", nullptr, "a", 0, 1, kFailed,
             "E File transfer failed.", kNone, "666 ", Fault("open", kTempFile, EACCES, 1, 1)},
            {"no copy inside the kernel", nullptr, "a", 0, 1, kStored, kMoved, kNone, "666 a",
             Fault("read", kTempFile, EINVAL)},
            {"nothing can be deleted", nullptr, "a", 0, 1, kStored, kMoved, "664 a", "666 a",
             Fault("unlink", kRadioFiles, EACCES, 9)},
            {"nothing can be given a mode", nullptr, "a", 0, 1, kStored, kMoved, kNone, "600 a",
             Fault("chmod", kRadioFiles, EPERM, 9)},
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
    EXPECT_THAT(log.TakeLines(),
                testing::HasSubstr("E Handle file write operation to path: "
                                   "/mnt/vendor/modem_userdata/replay/f for offset: 0xB"));
}

TEST_F(FileTest, ChunksOfNoKnownDirectoryAreRefused) {
    for (const auto& [name, number] : {std::pair("UNKNOWN", "0"), std::pair("RESERVED", "3")}) {
        ExpectResponse("FAILURE FILE_RESULT_BAD_DIRECTORY");
        EXPECT_EQ(Request(AsRequest(Fields(name, "a", 1, 1))), kStatusNotFound);
        EXPECT_EQ(Indicate(AsIndication(Fields(name, "a", 1, 1))), kStatusNotFound);
        EXPECT_THAT(log.TakeLines(), EndsWith(std::string("; E Bad file directory: ") + number));
        const auto id = static_cast<velmar_message::FileDirectory>(*number - '0');
        EXPECT_EQ(VelmarFileDirectoryTable::FindDirectoryFromId(id), "UNKNOWN");
    }
}

TEST_F(FileTest, MalformedChunksAreRefusedWithoutAResponse) {
    const std::string chunk = Fields("MDS", "a", 0, 1);
    EXPECT_EQ(Request(AsRequest("")), kStatusInvalid);
    EXPECT_EQ(Request(AsRequest("file_dir: FILE_DIRECTORY_MDS")), kStatusInvalid);
    EXPECT_EQ(Request(AsRequest("legacy_field: 'x' " + chunk)), kStatusInvalid);
    EXPECT_EQ(Indicate(AsIndication("")), kStatusInvalid);
    EXPECT_EQ(log.TakeLines(),
              "I Got File write request; E FileWriteRequest requires a file_dir; "
              "I Got File write request; E FileWriteRequest requires a file_name; "
              "I Got File write request; E Old FileWriteRequest is no longer supported; "
              "I Got File write indication; E FileWriteIndication requires a file_dir");
    EXPECT_EQ(File(kTempFile), kNone);
    // An empty name is one, that of the directory.
    ExpectResponse("FAILURE FILE_RESULT_BAD_OFFSET");
    EXPECT_EQ(Request(AsRequest("file_dir: FILE_DIRECTORY_MDS file_name: ''")), kStatusNotFound);
    // An empty field of the old form is none, and in an indication it is not looked at.
    ExpectResponse(kStored);
    EXPECT_EQ(Request(AsRequest("legacy_field: '' " + chunk)), kStatusWriteFailed);
    EXPECT_EQ(Indicate(AsIndication("legacy_field: 'x' " + chunk)), kStatusSuccess);
}

}  // namespace
