#include "log/log.h"
#include "program/file_descriptor.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <vector>

using namespace sonetrix::dev;
namespace fs = std::filesystem;

namespace {

/// A datagram socket that listens in a daemon's place.
class FakeDaemon {
public:
    explicit FakeDaemon(const fs::path &path) : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        EXPECT_EQ(::bind(socket_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    }
    /// The next datagram, or what the memory file that came with it holds; empty when none is waiting.
    std::string next() {
        std::string bytes(1 << 20, '\0');
        iovec part{bytes.data(), bytes.size()};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        const ssize_t got = ::recvmsg(socket_.get(), &message, MSG_DONTWAIT);
        if (got < 0)
            return {};
        if (const cmsghdr *header = CMSG_FIRSTHDR(&message)) {
            int descriptor = -1;
            std::memcpy(&descriptor, CMSG_DATA(header), sizeof descriptor);
            const FileDescriptor file(descriptor);
            std::ifstream stream("/proc/self/fd/" + std::to_string(file.get()));
            return {std::istreambuf_iterator<char>(stream), {}};
        }
        return bytes.substr(0, static_cast<size_t>(got));
    }

private:
    FileDescriptor socket_;
};

class LogTest : public testing::Test {
protected:
    void SetUp() override {
        ::setenv("SONETRIX_JOURNAL_SOCKET", journal_.c_str(), 1);
        ::setenv("SONETRIX_SYSLOG_SOCKET", syslog_.c_str(), 1);
        testing::internal::CaptureStderr();
    }
    void TearDown() override {
        if (!consoleTaken_)
            console();
        fs::remove_all(folder_);
    }
    std::string console() {
        consoleTaken_ = true;
        return testing::internal::GetCapturedStderr();
    }
    [[nodiscard]] std::string file() const {
        std::ifstream stream(file_);
        return {std::istreambuf_iterator<char>(stream), {}};
    }
    static fs::path makeFolder() {
        std::string name = (fs::temp_directory_path() / "sonetrix-log-XXXXXX").string();
        return ::mkdtemp(name.data());
    }

    fs::path folder_ = makeFolder();
    fs::path file_ = folder_ / "log";
    fs::path journal_ = folder_ / "journal";
    fs::path syslog_ = folder_ / "syslog";
    bool consoleTaken_ = false;
};

size_t occurrences(const std::string &text, const std::string &part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size()))
        ++count;
    return count;
}

} // namespace

TEST_F(LogTest, linesShowLevelAndSource) {
    Log log;
    log.setSessionLevel(SONETRIX_LOG_TRACE);
    log.write(SONETRIX_LOG_TRACE, "python", 0, "a {} %s\nb");
    log.write(SONETRIX_LOG_INFO, "some/where/driver.cpp", 12, "text");
    log.write(7, "python", 0, "beyond");
    log.setTimeStamps(Log::Target::console, true);
    log.write(SONETRIX_LOG_WARN, "python", 0, "stamped");
    std::istringstream lines(console());
    std::string line;
    for (const char *expected : {"TRACE python: a {} %s", "b", "INFO  driver.cpp:12: text", "FATAL python: beyond"}) {
        std::getline(lines, line);
        EXPECT_EQ(line, expected);
    }
    std::getline(lines, line);
    EXPECT_TRUE(
        testing::internal::RE::FullMatch(line, "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:]{8}\\.[0-9]{6} WARN  python: stamped"))
        << line;
}

TEST_F(LogTest, eachGroupOfTargetsHasItsThreshold) {
    FakeDaemon journal(journal_);
    FakeDaemon syslog(syslog_);
    Log log;
    log.openFile(file_.c_str());
    log.openFile((folder_ / "ignored").c_str());
    log.setTimeStamps(Log::Target::file, false);
    log.setSyslog(true);
    log.setJournal(true);
    for (const uint32_t session : {0U, 3U, 5U, 6U}) {
        for (const uint32_t journald : {0U, 3U, 5U, 6U}) {
            log.setSessionLevel(session);
            log.setJournalLevel(journald);
            for (const uint32_t level : {0U, 2U, 3U, 5U, UINT32_MAX}) {
                const std::string text = std::to_string(session * 100 + journald * 10 + std::min(level, 9U));
                log.write(level, "python", 0, text);
                const bool toSession = std::min(level, 5U) >= session;
                const bool toJournal = std::min(level, 5U) >= journald;
                EXPECT_EQ(log.wants(level), toSession || toJournal);
                EXPECT_EQ(file().ends_with(" python: " + text + "\n"), toSession) << text;
                EXPECT_EQ(syslog.next().ends_with(" python: " + text), toSession) << text;
                EXPECT_EQ(journal.next().ends_with("MESSAGE=" + text + "\n"), toJournal) << text;
            }
        }
    }
    log.setSessionLevel(99);
    EXPECT_EQ(log.sessionLevel(), 99U);
    log.setJournal(false);
    log.setSyslog(false);
    log.closeFile();
    log.setSessionLevel(0);
    const std::string before = file();
    log.write(SONETRIX_LOG_FATAL, "python", 0, "console only");
    EXPECT_EQ(file(), before);
    EXPECT_EQ(journal.next() + syslog.next(), "");
    EXPECT_FALSE(fs::exists(folder_ / "ignored"));
    EXPECT_NE(console().find("console only"), std::string::npos);
}

TEST_F(LogTest, daemonsGetTheirOwnForm) {
    FakeDaemon journal(journal_);
    FakeDaemon syslog(syslog_);
    Log log;
    log.setJournal(true);
    log.setSyslog(true);
    log.write(SONETRIX_LOG_ERROR, "a/b.cpp", 3, "one\ntwo");
    EXPECT_EQ(journal.next(), "PRIORITY=3\nSYSLOG_IDENTIFIER=sonetrix\nCODE_FILE=a/b.cpp\nCODE_LINE=3\nMESSAGE\n" +
                                  std::string("\7\0\0\0\0\0\0\0", 8) + "one\ntwo\n");
    const std::string line = syslog.next();
    EXPECT_TRUE(testing::internal::RE::PartialMatch(line, "^<11>[A-Z][a-z]{2} [ 0-9]{2} [0-9:]{8} sonetrix"
                                                          "\\[[0-9]+\\]: ERROR b\\.cpp:3: one\ntwo$"))
        << line;
    const std::string huge(4'000'000, 'x');
    log.write(SONETRIX_LOG_ERROR, "python", 0, huge);
    EXPECT_TRUE(journal.next().ends_with("MESSAGE=" + huge + "\n"));
}

TEST_F(LogTest, aTargetThatFailsIsReportedOnceAndComesBack) {
    Log log;
    log.openFile("/dev/null/impossible");
    log.openFile(file_.c_str());
    log.setJournal(true);
    log.setSyslog(true);
    for (int i = 0; i < 3; ++i)
        log.write(SONETRIX_LOG_ERROR, "python", 0, "kept");
    FakeDaemon journal(journal_);
    log.write(SONETRIX_LOG_ERROR, "python", 0, "back");
    EXPECT_TRUE(journal.next().ends_with("MESSAGE=back\n"));
    const std::string text = console();
    EXPECT_EQ(occurrences(text, "WARN  log: log file:"), 1U) << text;
    EXPECT_EQ(occurrences(text, "WARN  log: journald:"), 1U) << text;
    EXPECT_EQ(occurrences(text, "WARN  log: syslog:"), 1U) << text;
    EXPECT_EQ(occurrences(text, "kept"), 3U);
    EXPECT_EQ(occurrences(file(), "kept"), 3U);
}

TEST_F(LogTest, theCInterfaceFormatsWithoutTruncation) {
    const std::string part(100'000, 'y');
    const auto before = sonetrix_log_GetLogLevel();
    sonetrix_log_SetLogLevel(SONETRIX_LOG_INFO);
    errno = EDOM;
    sonetrix_log(SONETRIX_LOG_INFO, "x.cpp", 1, 1, "%s|%d|%s", part.c_str(), 42, part.c_str());
    sonetrix_log(SONETRIX_LOG_DEBUG, "x.cpp", 1, 1, "%s", "unwanted");
    sonetrix_log_LogString(SONETRIX_LOG_INFO, "python", 0, 1, "%s");
    sonetrix_log_LogString(SONETRIX_LOG_INFO, nullptr, 0, 1, nullptr);
    EXPECT_EQ(errno, EDOM);
    sonetrix_log_SetLogLevel(before);
    EXPECT_EQ(console(), "INFO  x.cpp:1: " + part + "|42|" + part + "\nINFO  python: %s\n");
}

TEST_F(LogTest, threadsDoNotMixTheirLines) {
    Log log;
    log.openFile(file_.c_str());
    log.setTimeStamps(Log::Target::file, false);
    std::vector<std::jthread> threads;
    for (char name = 'a'; name < 'e'; ++name) {
        threads.emplace_back([&log, name] {
            for (int i = 0; i < 200; ++i) {
                log.write(SONETRIX_LOG_ERROR, "python", 0, std::string(300, name));
                log.setSessionLevel(SONETRIX_LOG_WARN);
                log.setTimeStamps(Log::Target::console, i % 2 == 0);
            }
        });
    }
    threads.clear();
    for (char name = 'a'; name < 'e'; ++name)
        EXPECT_EQ(occurrences(file(), "ERROR python: " + std::string(300, name) + "\n"), 200U);
}
