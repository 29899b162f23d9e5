// Start-up stages that come between "Configuration is good." and "Started up
// successfully.". Called once, in this order, on the main thread.
#pragma once

// Creates the socket pairs at 50/51 (messages) and 60/61 (acknowledgements).
void CreateChannelSocketPairs();
// Starts the thread that reads acknowledgement records from descriptor 61.
void SpawnAcknowledgeThread();
// Creates the transport and blocks until it reaches a gateway, retrying with a
// delay from 60 s doubling to at most 28800 s. Always returns true.
bool StartTransport();
// Starts the thread that asks for the customisation file every
// gTimerSleepMinutes minutes.
void SpawnTimerThread();
