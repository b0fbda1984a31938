// The uevent decoder: one pass over a datagram of NUL-separated KEY=VALUE
// strings, keeping pointers into the buffer; only datagrams that become events
// allocate. It keeps no state and writes no records: a dropped datagram leaves
// no trace.
#pragma once

#include "daemon/HotplugEvent.h"

#include <cstddef>
#include <memory>

// The event a datagram of length N stands for, or none when it is of no
// concern to the daemon. The caller has stored a NUL at buffer[N]; each key's
// "=" is overwritten with a NUL.
std::unique_ptr<HotplugEvent> decodeUevent(char* buffer, size_t length);
