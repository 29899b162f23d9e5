#include "host/SessionChoice.h"

namespace vel {

bool IsActiveGraphical(const SessionRecord& session) {
    return (session.type == "x11" || session.type == "wayland") && session.klass == "user" &&
           session.state == "active";
}

int ChooseTargetSession(const std::vector<SessionRecord>& sessions,
                        const std::string& seat0Active) {
    int best = -1;
    for (size_t i = 0; i < sessions.size(); ++i) {
        const SessionRecord& session = sessions[i];
        if (!IsActiveGraphical(session)) {
            continue;
        }
        if (!seat0Active.empty() && session.id == seat0Active && session.seat == "seat0") {
            return int(i);
        }
        if (best < 0 || session.startedUsec > sessions[size_t(best)].startedUsec) {
            best = int(i);
        }
    }
    return best;
}

} // namespace vel
