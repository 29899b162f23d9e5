// With [agent] KeepUndelivered=1: acknowledgements the transport could not
// send, and notifications that arrived while nobody was logged in
// graphically, kept in order (and on disk, see KeptFile.h) until they can go
// out, each once.
//
// Threads: the acknowledgement thread keeps or sends acknowledgements; the
// transport's read thread keeps notifications and, after each registration,
// wakes the delivery thread, which sends the kept acknowledgements and, woken
// by logind, shows the kept notifications. gKeptAcknowledgementsLock guards
// the acknowledgement queue and its file and is held while one is sent (under
// it the transport takes its list lock); gKeptNotificationsLock guards the
// notification queue and its file. Neither is taken while the other is held.
#pragma once

#include "app/KeptFile.h"
#include "transport/ICTL.h"

constexpr int64_t kMaxKeptAgeSeconds = 24 * 60 * 60;
constexpr const char* kKeptAcknowledgementsFile = "kept-acknowledgements.dat";
constexpr const char* kKeptNotificationsFile = "kept-notifications.dat";

// Loads the kept records from `directory` (admitting the kept notifications'
// ids as displayed, so their acknowledgements pass) and starts the delivery
// thread. Before the transport is created.
void StartKeptDelivery(const char* directory = kKeptDirectory);
// Ends the delivery thread (within a second) and forgets the queues: tests,
// with no transport whose hook could still run.
void StopKeptDelivery();

// Sends the acknowledgement when nothing older waits and the transport takes
// it; otherwise keeps it behind the others. True either way.
bool KeepOrSendAcknowledgement(const tagCTL_MESSAGEACKNOWLEDGEDINFO& info);
// Keeps a notification that could not be shown, for the next graphical login.
void KeepNotification(const KeptNotification& notification);
// The transport's hook after each registration: the kept acknowledgements go.
void WakeForRegistration();

size_t KeptAcknowledgementCount();
size_t KeptNotificationCount();
