#include "softtoken/Calls.h"

#include <cstdio>
#include <exception>
#include <mutex>

namespace softtoken {
namespace {

std::mutex recordedMutex;
std::map<std::string, Arguments> recorded;

}  // namespace

void recordArguments(const char* operation, Arguments arguments) {
    std::lock_guard<std::mutex> guard(recordedMutex);
    recorded[operation] = std::move(arguments);
}

Arguments lastArguments(const std::string& operation) {
    std::lock_guard<std::mutex> guard(recordedMutex);
    auto found = recorded.find(operation);
    return found == recorded.end() ? Arguments{} : found->second;
}

void noteEscaped(const char* operation) noexcept {
    try {
        throw;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "soft token: %s failed: %s\n", operation, error.what());
    } catch (...) {
        std::fprintf(stderr, "soft token: %s failed with an unknown exception\n", operation);
    }
}

}  // namespace softtoken
