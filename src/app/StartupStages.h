// Start-up stages that come between "Configuration is good." and "Started up
// successfully.". Called once, in this order, on the main thread:
// CreateChannelSocketPairs, SpawnAcknowledgeThread, StartTransport,
// SpawnTimerThread.
#pragma once

#include "app/TransportStartup.h"
#include "app/WorkerThreads.h"

// Creates the socket pairs at 50/51 (messages) and 60/61 (acknowledgements).
void CreateChannelSocketPairs();
