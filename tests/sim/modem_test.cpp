#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "sim/modem/device_socket.h"
#include "sim/modem/phone_folder.h"
#include "sim/modem/simulated_modem.h"
#include "sim/tool/file_push.h"

using std::chrono::milliseconds;
using testing::HasSubstr;
using testing::SizeIs;
using velmar_sim::PhoneFolder;

namespace {

constexpr milliseconds kSoon{10000};

// The service's side of the channel, without a service.
class Opener {
  public:
    explicit Opener(const PhoneFolder& folder)
        : state(folder.MapState()),
          fd(velmar_sim::ConnectTo(folder.HostPath(velmar_phone::kChannelDevice))) {
        const timeval limit = {10, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    }

    // One message; "-" when there is none right now or the modem is gone.
    std::string Read(int flags = 0) const {
        std::string buffer(200000, '\0');
        const ssize_t size = recv(fd, buffer.data(), buffer.size(), flags);
        if (size > 0) ++state->channel_reads;
        return size < 0 ? "-" : buffer.substr(0, static_cast<size_t>(size));
    }

    void Write(const std::string& bytes) const {
        EXPECT_EQ(send(fd, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    }

  private:
    const std::shared_ptr<velmar_phone::PhoneState> state;
    const android::base::unique_fd fd;
};

class ModemTest : public testing::Test {
  protected:
    std::unique_ptr<Opener> OpenChannel() { return std::make_unique<Opener>(folder); }
    bool IsOpen() { return modem.WaitForChannel(milliseconds(0)); }

    const PhoneFolder folder;
    velmar_sim::SimulatedModem modem{folder};
};

TEST_F(ModemTest, WhatNobodyHasReadWaitsForTheNextReader) {
    modem.SendBytes("1");
    auto first = OpenChannel();
    auto second = OpenChannel();
    for (const char* message : {"2", "3", "4"}) modem.SendBytes(message);
    for (const char* message : {"1", "2"}) EXPECT_EQ(first->Read(), message);
    EXPECT_EQ(second->Read(MSG_DONTWAIT), "-");
    second->Write("both are heard");
    EXPECT_EQ(modem.Receive(kSoon)->bytes, "both are heard");
    first.reset();
    EXPECT_EQ(second->Read(), "3");
    second.reset();
    while (IsOpen()) std::this_thread::sleep_for(milliseconds(1));
    modem.SendBytes("5");

    auto third = OpenChannel();
    for (const char* message : {"4", "5"}) EXPECT_EQ(third->Read(), message);
    modem.SendBytes("6");
    modem.SendEndOfFile();
    modem.SendBytes("7");
    EXPECT_FALSE(IsOpen());
    EXPECT_EQ(third->Read(), "6");
    EXPECT_EQ(third->Read(), "");
    third.reset();

    auto fourth = OpenChannel();
    EXPECT_EQ(fourth->Read(), "7");
}

TEST_F(ModemTest, HangingUpLosesNothingAndRepeatsNothing) {
    auto first = OpenChannel();
    for (const char* message : {"1", "2"}) modem.SendBytes(message);
    modem.HangUp();
    EXPECT_FALSE(IsOpen());
    modem.SendBytes("3");
    EXPECT_EQ(first->Read(), "1");
    first.reset();
    const auto second = OpenChannel();
    for (const char* message : {"2", "3"}) EXPECT_EQ(second->Read(), message);
}

TEST_F(ModemTest, MessagesOfEverySizeKeepTheirBorders) {
    const auto opener = OpenChannel();
    for (const size_t size : {1, 65568, 131072}) {
        modem.SendBytes(std::string(size, 'm'));
        modem.SendBytes("next");
        EXPECT_THAT(opener->Read(), SizeIs(size));
        EXPECT_EQ(opener->Read(), "next");
        opener->Write(std::string(size, 'p'));
        opener->Write("next");
        EXPECT_THAT(modem.Receive(kSoon)->bytes, SizeIs(size));
        EXPECT_EQ(modem.Receive(kSoon)->bytes, "next");
    }
    EXPECT_THROW(modem.SendBytes(std::string(131073, 'm')), std::runtime_error);
}

TEST(EventStream, EventsAreShownInTheOrderOfTheirTimesOnceTheyAreSettled) {
    struct : velmar_sim::EventWriter {
        void Write(const velmar_sim::Event& event) override {
            EXPECT_GE(event.since_boot, last);
            last = event.since_boot;
            shown += event.text;
        }
        std::chrono::microseconds last{0};
        std::string shown;
    } writer;
    velmar_sim::EventStream stream;
    stream.Attach(&writer);
    const auto now = velmar_sim::Clock::now();
    const auto emit = [&](const char* text, milliseconds time) {
        velmar_sim::Event event;
        event.text = text;
        event.time = now + time;
        stream.Emit(event);
    };
    emit("d", milliseconds(100000));
    emit("b", milliseconds(-100));
    emit("c", milliseconds(-90));
    emit("a", milliseconds(-200));
    stream.Show();
    EXPECT_EQ(writer.shown, "abc");
    emit("(late)", milliseconds(-300));
    stream.Show();
    EXPECT_EQ(writer.shown, "abc(late)");
    stream.Show(velmar_sim::EventStream::Which::kAll);
    EXPECT_EQ(writer.shown, "abc(late)d");
}

TEST(PhoneFolder, FillsInWhatIsAskedForAndRefusesTheRest) {
    const mode_t before = umask(0777);
    const PhoneFolder folder;
    folder.WriteFile("/data/new/file", "text", 0640);
    umask(before);
    EXPECT_EQ(folder.Mode("/data/vendor/radio/modem_temp_file"), 0770);
    EXPECT_EQ(folder.Mode("/data/new/file"), 0640);
    EXPECT_THROW(folder.ReadFile("/data/../../escape"), std::runtime_error);
    EXPECT_THROW(folder.SetProperty("long", std::string(92, 'v')), std::runtime_error);
}

TEST(FilePush, ComparesTheStoredFileInEveryRespect) {
    const std::string target = "/data/vendor/radio/mds/f";
    const std::string unfinished = "/data/vendor/radio/modem_temp_file/f";
    const PhoneFolder folder;
    folder.WriteFile(target, "old");
    velmar_sim::Push push;
    push.mutable_generated()->set_size(100000);
    push.set_file_dir(velmar_message::FILE_DIRECTORY_MDS);
    push.set_file_name("f");
    push.set_as(velmar_sim::Push::INDICATION);
    velmar_sim::FilePush file(push, folder);
    std::string content;
    while (file.Next()) content += file.message().file_message().file_write_indication().data();

    folder.WriteFile(unfinished, "");
    EXPECT_EQ(file.StoredDifference(), unfinished + " exists, expected none");
    folder.Remove(unfinished);
    folder.WriteFile(target, content, 0666);
    EXPECT_EQ(file.StoredDifference(), target + " was not replaced");
    folder.Remove(target);
    EXPECT_EQ(file.StoredDifference(), target + " does not exist");
    folder.WriteFile(target, content, 0644);
    EXPECT_THAT(file.StoredDifference(), HasSubstr(target + " has another mode"));
    std::string other = content;
    other[70000] ^= 1;
    for (const auto& [stored, byte] : {std::pair(other, "70000"),
                                       {content + "x", "100000"},
                                       {content.substr(0, 99999), "99999"}}) {
        folder.WriteFile(target, stored, 0666);
        EXPECT_THAT(file.StoredDifference(), HasSubstr(target + " differs from byte " + byte));
    }
    folder.WriteFile(target, content, 0666);
    EXPECT_EQ(file.StoredDifference(), "");
}

}  // namespace
