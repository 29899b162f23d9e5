// The notification packet as the application splits it (message, time-out and
// caption, flags). Input: one byte choosing the shape, then the bytes.
//  - shape 0: the rest is a decoded MESSAGE text, packed as the transport packs
//    it (type 12, sender field, the text, two zero bytes);
//  - otherwise: the rest is the whole packet, of any length and first byte.
// The packet sits in a block of exactly its length, so ASan sees any read
// past it.
#include <stdlib.h>
#include <string.h>

#include <string>

#include "app/Notification.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1 || size > 1 << 20) {
        return -1;
    }
    const bool asSent = data[0] == 0;
    ++data;
    --size;
    const size_t length = asSent ? size + kNotificationTextOffset + 2 : size;
    unsigned char* packet = static_cast<unsigned char*>(calloc(length > 0 ? length : 1, 1));
    if (asSent) {
        packet[0] = kNotificationPacketType;
        memcpy(packet + 2, "admin", 5);
        memcpy(packet + kNotificationTextOffset, data, size);
    } else if (size > 0) {
        memcpy(packet, data, size);
    }
    char noAddress[1] = {'\0'};
    char sender[] = "admin";
    CTL_CALLBACK cb;
    memset(&cb, 0, sizeof cb);
    cb.message.transport = kCtlTransportHttp;
    cb.message.addr = noAddress;
    cb.message.data = packet;
    cb.message.datalen = int(length);
    cb.message.messageid = 42;
    cb.message.sender = sender;

    std::string message, caption, timeout, flags, id;
    GetMessageParameters(&cb, message, caption, timeout, flags, id);
    if (id != "42" || flags.empty() || message.size() > length ||
        caption.size() + timeout.size() > length) {
        __builtin_trap();
    }
    free(packet);
    return 0;
}
