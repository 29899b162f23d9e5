// Wire form of the gateway key: base-64 of its MD5 digest (24 characters),
// malloc'd; null for a null key. Re-entrant.
#pragma once

extern "C" char* GenWireGsk(const char* key);
