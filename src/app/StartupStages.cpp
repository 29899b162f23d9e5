#include "app/StartupStages.h"

// Placeholders: each stage does nothing until its subsystem is built in.

void CreateChannelSocketPairs() {
    // Will call vel::MakeSocketPair(50, 51) and vel::MakeSocketPair(60, 61).
}

void SpawnAcknowledgeThread() {
    // Will start AcknowledgeMain on a detached thread.
}

bool StartTransport() {
    // Will create vel::CHTCTL(443) into `transport` and retry Create with the
    // growing delay, logging "Couldn't connect. Trying again." after each wait.
    return true;
}

void SpawnTimerThread() {
    // Will start TimerMain on a detached thread.
}
