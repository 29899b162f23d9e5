#include "app/Undelivered.h"

#include <time.h>

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

#include "app/Notification.h"
#include "app/TransportStartup.h"
#include "app/corvanenotify.h"
#include "host/LoginMonitor.h"
#include "host/SessionDiscovery.h"
#include "log/Log.h"

namespace {

// The wait that lets the thread see it is to stop.
constexpr int kStopCheckMs = 1000;
// A session that logind reports may have no usable display yet: it is asked
// again at this pace for a while after each change.
constexpr int kFollowUpMs = 2000;
constexpr int kFollowUpCount = 15;

template <class Record> struct KeptQueue {
    std::deque<Record> m_records;
    size_t m_bytes = 0;
    std::unique_ptr<KeptFile> m_file;

    void Save() {
        if (m_file) {
            m_file->Save(std::vector<Record>(m_records.begin(), m_records.end()));
        }
    }
    void Push(Record record) {
        m_bytes += KeptSize(record);
        m_records.push_back(std::move(record));
    }
    Record Pop() {
        Record record = std::move(m_records.front());
        m_records.pop_front();
        m_bytes -= KeptSize(record);
        return record;
    }
    // Oldest first, until within the count and the file's size.
    void Bound(const char* what) {
        while (m_records.size() > kMaxKeptRecords || m_bytes + 16 > kMaxKeptFileBytes) {
            vel::Log(std::string(what) + std::to_string(Pop().id) + " dropped: too many kept");
        }
    }
};

std::mutex gKeptAcknowledgementsLock;
KeptQueue<KeptAcknowledgement> gKeptAcknowledgements;
std::mutex gKeptNotificationsLock;
KeptQueue<KeptNotification> gKeptNotifications;

std::atomic<bool> gStopDelivery{false};
// Plain pointers: at the process's exit nothing may be torn down under the
// running thread (a joinable std::thread would even abort).
vel::LoginMonitor* gMonitor = nullptr;
std::thread* gDeliveryThread = nullptr;

bool KeepingNotifications() {
    return gSessionDiscovery && vel::LogindRunning();
}

int Send(const KeptAcknowledgement& record) {
    vel::CHTCTL* ctl = transport.load();
    tagCTL_MESSAGEACKNOWLEDGEDINFO info = {0, record.id, record.flags, record.user.c_str()};
    return ctl != nullptr ? ctl->SendAcknowledgement(&info) : -1;
}

// Sends the kept acknowledgements, oldest first, until one fails; the caller
// holds gKeptAcknowledgementsLock. One at a time off the file: after a kill
// none is sent twice but the one in flight. The number sent.
size_t SendKeptAcknowledgementsLocked() {
    size_t sent = 0;
    while (!gKeptAcknowledgements.m_records.empty() &&
           Send(gKeptAcknowledgements.m_records.front()) == 0) {
        gKeptAcknowledgements.Pop();
        gKeptAcknowledgements.Save();
        ++sent;
    }
    if (sent > 0) {
        vel::Log("Kept acknowledgements sent: " + std::to_string(sent));
    }
    return sent;
}

void SendKeptAcknowledgements() {
    std::lock_guard<std::mutex> lock(gKeptAcknowledgementsLock);
    SendKeptAcknowledgementsLocked();
}

// Drops what waited longer than a day; the caller holds the lock.
void DropExpiredNotifications(int64_t now) {
    auto& records = gKeptNotifications.m_records;
    bool dropped = false;
    while (!records.empty() && now - records.front().arrival > kMaxKeptAgeSeconds) {
        vel::Log("Kept notification " + std::to_string(gKeptNotifications.Pop().id) +
                 " dropped: older than 24 hours");
        dropped = true;
    }
    if (dropped) {
        gKeptNotifications.Save();
    }
}

// True when nothing is left to show.
bool ShowKeptNotifications() {
    std::deque<KeptNotification> due;
    {
        std::lock_guard<std::mutex> lock(gKeptNotificationsLock);
        DropExpiredNotifications(int64_t(time(nullptr)));
        if (gKeptNotifications.m_records.empty()) {
            return true;
        }
    }
    vel::DesktopSession session;
    std::string why;
    if (!vel::DiscoverDesktopSession(session, why)) {
        return false;
    }
    {
        // Off the queue and the file before shown: each is shown at most once.
        std::lock_guard<std::mutex> lock(gKeptNotificationsLock);
        due.swap(gKeptNotifications.m_records);
        gKeptNotifications.m_bytes = 0;
        gKeptNotifications.Save();
    }
    for (const KeptNotification& notification : due) {
        vel::Log("Kept notification " + std::to_string(notification.id) + " shown in session " +
                 session.id);
        ShowInSession(notification, session);
    }
    return true;
}

void DeliveryMain() {
    // A start may find someone logged in already.
    int followUps = KeepingNotifications() ? kFollowUpCount : 0;
    bool look = followUps > 0;
    while (!gStopDelivery) {
        if (look && ShowKeptNotifications()) {
            followUps = 0;
        }
        look = false;
        const auto event = gMonitor->Wait(followUps > 0 ? kFollowUpMs : kStopCheckMs);
        if (event == vel::LoginMonitor::Event::kWake) {
            SendKeptAcknowledgements();
        } else if (event == vel::LoginMonitor::Event::kLoginChange) {
            followUps = kFollowUpCount;
            look = true;
        } else if (followUps > 0) {
            --followUps;
            look = true;
        }
    }
}

template <class Record>
void Load(KeptQueue<Record>& queue, const char* directory, const char* name, const char* what) {
    queue.m_file.reset(new KeptFile(directory, name));
    for (Record& record : queue.m_file->template Load<Record>()) {
        queue.Push(std::move(record));
    }
    queue.Bound(what);
}

} // namespace

void StartKeptDelivery(const char* directory) {
    {
        std::lock_guard<std::mutex> lock(gKeptAcknowledgementsLock);
        Load(gKeptAcknowledgements, directory, kKeptAcknowledgementsFile,
             "Kept acknowledgement of notification ");
    }
    {
        std::lock_guard<std::mutex> lock(gKeptNotificationsLock);
        Load(gKeptNotifications, directory, kKeptNotificationsFile, "Kept notification ");
        std::lock_guard<std::mutex> ids(gReceivedMessagesLock);
        for (const KeptNotification& notification : gKeptNotifications.m_records) {
            gReceivedMessages.insert(notification.id);
        }
    }
    gStopDelivery = false;
    gMonitor = new vel::LoginMonitor(KeepingNotifications());
    gDeliveryThread = new std::thread(&DeliveryMain);
}

void StopKeptDelivery() {
    gStopDelivery = true;
    if (gDeliveryThread != nullptr) {
        gDeliveryThread->join();
        delete gDeliveryThread;
        gDeliveryThread = nullptr;
    }
    delete gMonitor;
    gMonitor = nullptr;
    std::lock_guard<std::mutex> acknowledgements(gKeptAcknowledgementsLock);
    gKeptAcknowledgements = KeptQueue<KeptAcknowledgement>();
    std::lock_guard<std::mutex> notifications(gKeptNotificationsLock);
    gKeptNotifications = KeptQueue<KeptNotification>();
}

bool KeepOrSendAcknowledgement(const tagCTL_MESSAGEACKNOWLEDGEDINFO& info) {
    KeptAcknowledgement record;
    record.id = info.messageid;
    record.flags = info.userflags;
    record.user = info.username != nullptr ? info.username : "";
    record.user.resize(std::min(record.user.size(), kMaxKeptTextBytes));
    std::lock_guard<std::mutex> lock(gKeptAcknowledgementsLock);
    // Older ones first: a link that is up again without a new registration
    // (one failed write) takes them now.
    SendKeptAcknowledgementsLocked();
    if (gKeptAcknowledgements.m_records.empty() && Send(record) == 0) {
        return true;
    }
    vel::Log("Acknowledgement of notification " + std::to_string(record.id) +
             " kept until the gateway takes it");
    gKeptAcknowledgements.Push(std::move(record));
    gKeptAcknowledgements.Bound("Kept acknowledgement of notification ");
    gKeptAcknowledgements.Save();
    return true;
}

void KeepNotification(const KeptNotification& notification) {
    if (!KeepingNotifications()) {
        return;
    }
    for (const std::string* text : {&notification.message, &notification.caption,
                                    &notification.timeout, &notification.flags}) {
        if (text->size() > kMaxKeptTextBytes) {
            vel::Log("Notification " + std::to_string(notification.id) +
                     " dropped: too long to keep");
            return;
        }
    }
    std::lock_guard<std::mutex> lock(gKeptNotificationsLock);
    vel::Log("Notification " + std::to_string(notification.id) +
             " kept until the next graphical login");
    gKeptNotifications.Push(notification);
    gKeptNotifications.Bound("Kept notification ");
    DropExpiredNotifications(int64_t(time(nullptr)));
    gKeptNotifications.Save();
}

void WakeForRegistration() {
    if (gMonitor != nullptr) {
        gMonitor->Wake();
    }
}

size_t KeptAcknowledgementCount() {
    std::lock_guard<std::mutex> lock(gKeptAcknowledgementsLock);
    return gKeptAcknowledgements.m_records.size();
}

size_t KeptNotificationCount() {
    std::lock_guard<std::mutex> lock(gKeptNotificationsLock);
    return gKeptNotifications.m_records.size();
}
