// A kept-records file as read back from the cache directory: any bytes to the
// decoder of both kinds. What decodes must encode back to the same bytes
// (the format has one spelling of each content).
#include <stdlib.h>

#include <stdint.h>

#include <string>
#include <vector>

#include "app/KeptFormat.h"

template <class Record> void RoundTrip(const std::string& bytes) {
    std::vector<Record> records;
    std::string why;
    if (DecodeKept(bytes, records, why) && EncodeKept(records) != bytes) {
        abort();
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    RoundTrip<KeptAcknowledgement>(bytes);
    RoundTrip<KeptNotification>(bytes);
    return 0;
}
