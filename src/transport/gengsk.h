// Wire form of the gateway key: base-64 of its MD5 digest (24 characters).
#pragma once

extern "C" char* GenWireGsk(const char* key);
