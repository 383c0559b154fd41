#include "token/TokenRequests.h"

#include "token/Sessions.h"

namespace orvane {

int generateKeyPair(const std::string& serial, void* libraryContext, OrvaneKeyPair& request) {
    return orvane_generateKeyPair(serial.c_str(), getCachedPin(serial).c_str(), &request, libraryContext);
}

int deleteKeyPair(const std::string& serial, void* libraryContext, const unsigned char* keyId, bool tokenFlag) {
    return orvane_deleteKeyPair(serial.c_str(), keyId, getCachedPin(serial).c_str(), tokenFlag, libraryContext);
}

int storeCertificate(const std::string& serial, void* libraryContext, OrvaneCertificate& certificate) {
    return orvane_importCertificate(serial.c_str(), getCachedPin(serial).c_str(), &certificate, libraryContext);
}

std::vector<OrvaneCertificate> readCertificates(const std::string& serial, void* libraryContext) {
    return orvane_getCertificateList(serial.c_str(), libraryContext);
}

int generateRandom(const std::string& serial, unsigned char* buffer, size_t length, bool softwareGenerator,
                   void* libraryContext) {
    return orvane_generateRamdomNumber(serial.c_str(), static_cast<int>(length), buffer, softwareGenerator,
                                       libraryContext);
}

int startHash(const std::string& serial, int mechanism, void** hashHandle, void* libraryContext) {
    return orvane_initHash(serial.c_str(), mechanism, hashHandle, libraryContext);
}

int feedHash(void* hashHandle, const unsigned char* data, size_t length, void* libraryContext) {
    return orvane_updateHash(hashHandle, data, static_cast<int>(length), libraryContext);
}

int finishHash(void* hashHandle, unsigned char* digest, int* digestLength, void* libraryContext) {
    return orvane_finalHash(hashHandle, digest, digestLength, libraryContext);
}

}  // namespace orvane
