// The key-pair, certificate and secret-key lists the library hands out by reference. Each
// thread has its own, valid until that thread asks for the same kind again; they go when the
// thread ends. They hang from a Win32 TLS slot rather than C++ thread_local objects: under
// MinGW a thread_local object's destructor can run after its emulated storage was freed.
#pragma once

#include <vector>

#include "token/OrvaneDSCLibrary.h"

namespace softtoken {

struct ThreadLists {
    std::vector<OrvaneKeyPair> keyPairs;
    std::vector<OrvaneCertificate> certificates;
    std::vector<OrvaneSymmetricKey> secretKeys;
};

// This thread's lists, made on first use; null when they could not be had.
ThreadLists* threadLists() noexcept;

}  // namespace softtoken
