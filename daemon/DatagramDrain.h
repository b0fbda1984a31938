// Reads a datagram socket dry: peeks each datagram's length, grows the buffer
// to hold it whole plus a NUL, receives it and hands it on. Failures are
// thrown as the listener's own, whose read this is.
#pragma once

#include "common/container/ByteArray.h"

#include <cstddef>
#include <functional>

// Returns the number of datagrams handed on once the socket has none left.
size_t drainDatagrams(int socketFd, Common::Container::ByteArray& buffer,
                      const std::function<void(char* datagram, size_t length)>& consume);
