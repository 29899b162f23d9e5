// Runs of the display program under the sandbox's X server, started as the
// daemon starts it: as root, with the X environment and the notification's
// entries, its acknowledgement channel at descriptor 60 (the test holds the
// other end) and stray daemon descriptors at 50, 51 and 61. Test main thread
// only.
#pragma once

#include "XDesktop.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

namespace display_e2e {

constexpr int kWindowMs = 15000;
constexpr int kRecordMs = 5000;
constexpr int kExitMs = 5000;

struct DisplayRun {
    pid_t pid = -1;
    int channel = -1; // the daemon's end of the acknowledgement channel
};

// What arrived on the channel: the bytes of one read, or the end of the stream.
struct ChannelRead {
    bool ended = false; // the program closed its end (it exited)
    bool timedOut = false;
    std::string bytes;
};

class DisplayTest : public testing::Test {
protected:
    static void SetUpTestSuite();
    static void TearDownTestSuite();
    void SetUp() override;
    void TearDown() override;

    // Entries given as NAME=value; "XAUTHORITY" among them replaces the
    // server's authority path, an empty value for it removes the entry.
    DisplayRun Launch(const std::map<std::string, std::string>& entries);
    ChannelRead Read(const DisplayRun& run, int timeoutMs = kRecordMs);
    // Waits (bounded) until the window shows its button.
    bool WaitUntilDrawn(WindowId window, bool large);
    // Then saves a screenshot of it under the name.
    Screenshot SaveWhenDrawn(WindowId window, bool large, const std::string& name);
    // Clicks the middle of the "Acknowledge" button.
    void ClickButton(WindowId window, bool large);
    // Exit status of the run, or -1 if it did not exit in time.
    int ExitStatus(DisplayRun& run, int timeoutMs = kExitMs);

    static XDesktop* s_desktop;
    static std::string s_startError;
    std::vector<DisplayRun> m_runs;
};

// The record the display program must write, built field by field.
bool IsButtonFace(uint8_t r, uint8_t g, uint8_t b);
std::string ExpectedRecord(int32_t id, int32_t flags, const std::string& user);
// A line of /proc/<pid>/status ("Uid", "Gid", "Groups"), without its name.
std::string StatusLine(pid_t pid, const std::string& name);
std::vector<int> OpenDescriptors(pid_t pid);

} // namespace display_e2e
