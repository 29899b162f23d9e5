// Stand-in for the display program and for long-running desktop processes in
// the host tests; single-threaded. With ND_PROBE_RECORD set it writes one
// "arg:" line per argument and one "env:" line per environment entry to that
// file and exits 0; otherwise it waits to be killed, for two minutes at most.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

extern char** environ;

int main(int argc, char** argv) {
    const char* recordPath = getenv("ND_PROBE_RECORD");
    if (recordPath == nullptr) {
        alarm(120);
        for (;;) {
            pause();
        }
    }
    FILE* record = fopen(recordPath, "w");
    if (record == nullptr) {
        return 2;
    }
    for (int i = 0; i < argc; ++i) {
        fprintf(record, "arg:%s\n", argv[i]);
    }
    for (char** entry = environ; *entry != nullptr; ++entry) {
        fprintf(record, "env:%s\n", *entry);
    }
    return fclose(record) == 0 ? 0 : 2;
}
