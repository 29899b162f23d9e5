// Download of the customisation file announced by a file-information reply.
// Runs on the transport's read thread (callback code 16, with the transport's
// connection-list lock held: nothing here may call back into the transport).
// Only FileInfoCallback touches gLastWriteTime.
#pragma once

#include <stdint.h>

#include <string>

constexpr const char* kCacheDirectory = "/var/cache/notifydaemon/";
constexpr const char* kCustomisationFile = "/var/cache/notifydaemon/custom.dat";
constexpr const char* kMoveCommand =
    "mv /var/cache/notifydaemon/sxa-custom.dat /var/cache/notifydaemon/custom.dat";

// Fetches "http://" + serveraddress + "/" + linkname into the cache directory
// as `filename`, when the link is the customisation link (any case) and
// lastwritetime is newer than the last one fetched. Only "sxa-custom.dat", the
// name gateways give it, becomes custom.dat: the move names that file alone,
// so a download under another name stays in the cache beside it. A file name
// that is not a plain name, or a server address with characters outside
// [A-Za-z0-9.:-], is refused: both reach a shell command.
void FileInfoCallback(const char* linkname, const char* filename, const char* subfolder,
                      uint64_t filesize, uint64_t lastwritetime, const char* serveraddress);

// "wget -q -O <file> <url>", then MoveFile when the download left a
// non-empty `file` (a failed one leaves custom.dat as it was; MoveFile moves
// sxa-custom.dat whatever `file` is). Always true: the reply's time counts as
// fetched either way.
bool GetUrlToFile(const char* url, const char* file);

// Moves sxa-custom.dat over custom.dat and makes it 0644.
void MoveFile();

// The checks applied before anything reaches the shell.
bool IsPlainFileName(const std::string& name);
bool IsSafeServerAddress(const std::string& address);
