// The token's remaining services, each in the one form both faces call it: key pair
// generation and deletion, certificates, random numbers, hashing and a PIN given by the
// caller. Each returns the library's result (0 for success); the faces map it.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "token/OrvaneDSCLibrary.h"

namespace orvane {

// orvane_generateKeyPair with the token's cached PIN; the library fills in the request.
int generateKeyPair(const std::string& serial, void* libraryContext, OrvaneKeyPair& request);
// orvane_deleteKeyPair with the token's cached PIN.
int deleteKeyPair(const std::string& serial, void* libraryContext, const unsigned char* keyId, bool tokenFlag);

// orvane_importCertificate with the token's cached PIN.
int storeCertificate(const std::string& serial, void* libraryContext, OrvaneCertificate& certificate);
// A copy of the token's certificate list, in token order.
std::vector<OrvaneCertificate> readCertificates(const std::string& serial, void* libraryContext);

// orvane_generateRamdomNumber; softwareGenerator true when the hardware generator is off.
int generateRandom(const std::string& serial, unsigned char* buffer, size_t length, bool softwareGenerator,
                   void* libraryContext);

// A token hash: started with a mechanism number, fed, and asked for its digest (into a
// buffer of *digestLength bytes, the digest's length on return).
int startHash(const std::string& serial, int mechanism, void** hashHandle, void* libraryContext);
int feedHash(void* hashHandle, const unsigned char* data, size_t length, void* libraryContext);
int finishHash(void* hashHandle, unsigned char* digest, int* digestLength, void* libraryContext);

}  // namespace orvane
