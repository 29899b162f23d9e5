// The daemon's run sequence and its settings. NotifyMain, Configure and the
// mapping run on the main thread before any worker exists; the settings
// globals are written only then and read without a lock afterwards.
#pragma once

#include <cstdint>
#include <set>
#include <string>

constexpr const char* kProductVersion = "2.02";

// The transport global `transport` and StopTransport() are in
// app/TransportStartup.h.

// Ids of the notifications displayed so far. Shared by the callback thread and
// the acknowledgement thread: the display code must put a lock on it.
extern std::set<int> gReceivedMessages;
// Minutes between customisation checks (agent/UpdateInterval).
extern int gTimerSleepMinutes;
// Settings handed to the display helper (UI section).
extern int fullscreen;
extern std::string fullscreentimeout;
extern std::string largelogopath;
// UI/SessionDiscovery=1: each notification goes to the session systemd-logind
// names, with that session's own display environment and user. Any other
// value or none: the X server probe and the console's login records.
extern bool gSessionDiscovery;
// agent/KeepUndelivered=1: acknowledgements the transport could not send and
// (with gSessionDiscovery) notifications nobody could see are kept until they
// can go (app/Undelivered.h). Any other value or none: they are dropped.
extern bool gKeepUndelivered;
// Stacking order of the next helper window, 0 to 9.
extern int current_window_num;
// Last-write time of the cached customisation file.
extern uint64_t gLastWriteTime;
// Initialised to -1 and otherwise unused.
extern int gNamedPipe;

int NotifyMain(int argc, char** argv);

// Does nothing; defined but deliberately installed nowhere.
void MainSignalHandler(int sig);

// Loads install dir + "daemon/config.dat" into the preferences store and
// derives the transport's keys and the globals above. False when unreadable.
bool Configure();
// Writes HTTP/GatewayAddress, HTTP/GSK and HTTP/*Dept from the gateway keys.
void MapNamesFromNewFileFormatToTheOneHtctlExpects();
// True when gateway/gatewayip and gateway/gatewaykey are both set.
bool ConfigurationIsComplete();
