// bench_soak: the daemon with [agent] KeepUndelivered=1 (and the test timing
// seam) through NOTIFICATIONS notifications in batches, the gateway restarted
// after each batch's receipts and before its acknowledgements, so that every
// acknowledgement waits in the kept queue for the next registration. Reports
// the daemon's resident memory and open descriptors at the start, middle and
// end, and the acknowledgements lost or sent twice. Root, inside
// tests/support/sandbox:
//
//   bench_soak [NOTIFICATIONS [RESTARTS]]     (defaults 10000 and 100)
#include <dirent.h>
#include <stdio.h>
#include <sys/stat.h>

#include <memory>
#include <set>

#include "DevGateway.h"
#include "E2E.h"

namespace {

using namespace e2e;

constexpr const char* kGoDir = "/run/nd-soak/go";
constexpr const char* kRecordDir = "/run/nd-notify/records";
constexpr int kWaitMs = 60000;
constexpr const char* kKeptLine = " kept until the gateway takes it";

long long ResidentKb(pid_t pid) {
    const std::string status = ReadFile("/proc/" + std::to_string(pid) + "/status");
    const size_t at = status.find("VmRSS:");
    return at != std::string::npos ? atoll(status.c_str() + at + 6) : -1;
}

int OpenDescriptors(pid_t pid) {
    DIR* dir = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
    int count = 0;
    while (dir != nullptr && readdir(dir) != nullptr) {
        ++count;
    }
    if (dir != nullptr) {
        closedir(dir);
    }
    return count - 2; // "." and ".."
}

size_t LogLinesWith(const char* text) {
    const std::string log = ReadFile(kLogPath);
    size_t n = 0;
    for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) {
        ++n;
    }
    return n;
}

void Clear(const char* directory) {
    std::filesystem::remove_all(directory);
    std::filesystem::create_directories(directory);
}

} // namespace

int main(int argc, char** argv) {
    const int total = argc > 1 ? atoi(argv[1]) : 10000;
    const int restarts = argc > 2 ? atoi(argv[2]) : 100;
    const int batch = total / restarts;
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    Clear(kRecordDir);
    Clear(kGoDir);
    Clear("/var/cache/notifydaemon");
    unlink(kLogPath);
    // The display program acknowledges once its batch is let go.
    WriteFile("/run/nd-notify/answer", "6 alice\n");
    unlink(kDisplayPath);
    WriteFile(kDisplayPath, std::string("#!/bin/sh\ni=0\nwhile [ ! -e ") + kGoDir +
                                "/$((MESSAGE_ID / " + std::to_string(batch) +
                                ")) ] && [ $i -lt 1200 ]; do sleep 0.05; i=$((i+1)); done\n"
                                "exec " ND_STUB_PATH "\n");
    chmod(kDisplayPath, 0755);
    Spawn(ND_STUB_PATH, {"stub", "--login", "alice"});
    // The X server stand-in ends by itself after ten minutes: started anew
    // each round when it has.
    pid_t xServer = -1;
    auto keepXServer = [&] {
        if (xServer <= 0 || kill(xServer, 0) != 0 || waitpid(xServer, nullptr, WNOHANG) != 0) {
            xServer = Spawn(ND_STUB_PATH, {"/usr/bin/X", ":0", "-auth", "/run/nd-soak/A"});
            WaitUntil([&] {
                return ReadFile("/proc/" + std::to_string(xServer) + "/cmdline")
                           .rfind("/usr/bin/X", 0) == 0;
            });
        }
    };
    keepXServer();

    auto gateway = std::make_unique<devgw::DevGateway>();
    const int port = gateway->Start(0);
    WriteSettings(port, "SOAKKEY1", "[agent]\nUpdateInterval=60\nKeepUndelivered=1\n");
    Install(ND_FAST_DAEMON_PATH, kInstalledDaemon);
    pid_t daemon = StartDaemon();
    if (daemon <= 0 || !gateway->WaitForRequest("OPEN", kWaitMs)) {
        fprintf(stderr, "the daemon did not start\n");
        return 1;
    }

    std::multiset<int> acknowledged;
    auto sample = [&](const char* when) {
        printf("RESULT soak.%s.rss_kb %lld kB\nRESULT soak.%s.fds %d count\n", when,
               ResidentKb(daemon), when, OpenDescriptors(daemon));
        fflush(stdout);
    };
    const auto started = Clock::now();
    for (int round = 0; round < restarts; ++round) {
        if (round == 0 || round == restarts / 2) {
            sample(round == 0 ? "start" : "middle");
        }
        keepXServer();
        const int first = round * batch;
        const size_t keptBefore = LogLinesWith(kKeptLine);
        for (int id = first; id < first + batch; ++id) {
            gateway->SendNotification(id, "soak " + std::to_string(id), "30|Soak", "1");
        }
        if (!WaitUntil(
                [&] { return gateway->RequestsFor("MESSAGERECEIVED").size() >= size_t(batch); },
                kWaitMs)) {
            fprintf(stderr, "round %d: receipts missing\n", round);
            break;
        }
        gateway->Stop();
        for (const devgw::Request& request : gateway->RequestsFor("MESSAGEACK")) {
            acknowledged.insert(atoi(request.Field("ID").c_str()));
        }
        gateway.reset();
        std::this_thread::sleep_for(std::chrono::milliseconds(300)); // the daemon sees it
        WriteFile(std::string(kGoDir) + "/" + std::to_string(round), "");
        WaitUntil([&] { return LogLinesWith(kKeptLine) >= keptBefore + size_t(batch); }, kWaitMs);
        gateway = std::make_unique<devgw::DevGateway>();
        if (gateway->Start(uint16_t(port)) != port) {
            fprintf(stderr, "round %d: the gateway could not listen again\n", round);
            break;
        }
        WaitUntil([&] { return gateway->RequestsFor("MESSAGEACK").size() >= size_t(batch); },
                  kWaitMs);
        while (waitpid(-1, nullptr, WNOHANG) > 0) {
        }
        Clear(kRecordDir); // the stub's records would fill /run
    }
    sample("end");
    for (const devgw::Request& request : gateway->RequestsFor("MESSAGEACK")) {
        acknowledged.insert(atoi(request.Field("ID").c_str()));
    }
    int lost = 0, twice = 0;
    for (int id = 0; id < restarts * batch; ++id) {
        const size_t n = acknowledged.count(id);
        lost += n == 0 ? 1 : 0;
        twice += n > 1 ? 1 : 0;
    }
    printf("RESULT soak.notifications %d count\nRESULT soak.gateway_restarts %d count\n"
           "RESULT soak.kept_acknowledgements %zu count\nRESULT soak.acknowledgements_lost %d "
           "count\nRESULT soak.acknowledgements_twice %d count\nRESULT soak.seconds %.1f s\n",
           restarts * batch, restarts, LogLinesWith(kKeptLine), lost, twice,
           std::chrono::duration<double>(Clock::now() - started).count());
    StopDaemon(daemon);
    kill(xServer, SIGKILL);
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
    return lost == 0 && twice == 0 ? 0 : 1;
}
