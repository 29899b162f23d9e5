#include "app/StartupStages.h"

#include "host/SocketPair.h"

void CreateChannelSocketPairs() {
    // Results ignored: without a channel the display programs' answers are
    // lost, which the daemon survives.
    vel::MakeSocketPair(vel::kMessageServerSocket, vel::kMessageClientSocket);
    vel::MakeSocketPair(vel::kAcknowledgeDaemonPort, vel::kAcknowledgeClientPort);
}
