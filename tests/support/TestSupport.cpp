#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <atomic>
#include <cctype>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "encoding/Hex.h"
#include "softtoken/SoftTokenAdmin.h"

namespace orvanetest {
namespace {

std::string environment(const char* name) {
    char buffer[4096];
    DWORD length = GetEnvironmentVariableA(name, buffer, sizeof buffer);
    if (length == 0 || length >= sizeof buffer) throw std::runtime_error(std::string("test environment lacks ") + name);
    return std::string(buffer, length);
}

std::string moduleBaseName() {
    char path[MAX_PATH];
    DWORD length = GetModuleFileNameA(nullptr, path, sizeof path);
    std::string name(path, length);
    size_t slash = name.find_last_of("\\/");
    if (slash != std::string::npos) name.erase(0, slash + 1);
    size_t dot = name.rfind('.');
    if (dot != std::string::npos) name.erase(dot);
    return name;
}

bool exists(const std::string& unixPath) {
    return GetFileAttributesA(windowsPath(unixPath).c_str()) != INVALID_FILE_ATTRIBUTES;
}

void makeFolders(const std::string& unixPath) {
    for (size_t i = 1; i <= unixPath.size(); ++i)
        if (i == unixPath.size() || unixPath[i] == '/') CreateDirectoryA(windowsPath(unixPath.substr(0, i)).c_str(), nullptr);
}

}  // namespace

std::string workDir() {
    static const std::string folder = [] {
        std::string path = environment("ORVANE_TEST_WORK") + "/" + moduleBaseName();
        makeFolders(path);
        return path;
    }();
    return folder;
}

std::string windowsPath(const std::string& unixPath) {
    std::string path = "Z:" + unixPath;
    for (char& c : path)
        if (c == '/') c = '\\';
    return path;
}

void writeFile(const std::string& unixPath, const Bytes& bytes) {
    std::ofstream file(windowsPath(unixPath), std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!file) throw std::runtime_error("cannot write " + unixPath);
}

void writeText(const std::string& unixPath, const std::string& text) { writeFile(unixPath, bytesOf(text)); }

Bytes readFile(const std::string& unixPath) {
    std::ifstream file(windowsPath(unixPath), std::ios::binary);
    if (!file) return {};
    return Bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

Bytes bytesOf(const std::string& text) { return Bytes(text.begin(), text.end()); }

std::string lowerCase(std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

HostResult runHost(const std::string& script) {
    static std::atomic<int> counter{0};
    std::string stem = workDir() + "/host-" + std::to_string(GetCurrentProcessId()) + "-" + std::to_string(++counter);
    // Wine reuses process ids between runs: never mistake an old result for this one.
    for (const char* suffix : {".rc", ".out", ".rc.tmp"}) DeleteFileA(windowsPath(stem + suffix).c_str());
    writeText(stem + ".sh", "cd '" + workDir() + "'\n( " + script + "\n) > '" + stem + ".out' 2>&1\n" +
                                "echo $? > '" + stem + ".rc.tmp' && mv '" + stem + ".rc.tmp' '" + stem + ".rc'\n");
    std::string command = "/bin/sh " + stem + ".sh";
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process{};
    if (!CreateProcessA(nullptr, &command[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process))
        throw std::runtime_error("cannot start /bin/sh on the host");
    // For a Unix program Wine fills the process and thread handles from uninitialised stack:
    // they belong to nobody, and closing them would close some other handle of this process.

    HostResult result;
    for (int waited = 0; waited < 120000 && !exists(stem + ".rc"); waited += 10) Sleep(10);
    Bytes code = readFile(stem + ".rc");
    Bytes output = readFile(stem + ".out");
    result.output.assign(output.begin(), output.end());
    if (!code.empty()) result.exitCode = std::atoi(std::string(code.begin(), code.end()).c_str());
    return result;
}

int runTool(const std::string& arguments, const std::string& input) {
    static int runs = 0;
    std::string stem = workDir() + "/tool-" + std::to_string(++runs);
    if (!input.empty()) writeText(stem + ".in", input);
    return finish(startProgram("orvane-token.exe", arguments, stem + ".out", input.empty() ? "" : stem + ".in"));
}

void* startProgram(const std::string& program, const std::string& arguments, const std::string& outputFile,
                   const std::string& inputFile) {
    std::string path = program.find('\\') == std::string::npos ? windowsPath(environment("ORVANE_BIN")) + "\\" + program
                                                               : program;
    std::string command = "\"" + path + "\" " + arguments;
    SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
    HANDLE output = CreateFileA(windowsPath(outputFile).c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inheritable,
                                CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (output == INVALID_HANDLE_VALUE) return nullptr;
    HANDLE input = inputFile.empty() ? INVALID_HANDLE_VALUE
                                     : CreateFileA(windowsPath(inputFile).c_str(), GENERIC_READ, FILE_SHARE_READ,
                                                   &inheritable, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (!inputFile.empty() && input == INVALID_HANDLE_VALUE) {
        CloseHandle(output);
        return nullptr;
    }
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = inputFile.empty() ? GetStdHandle(STD_INPUT_HANDLE) : input;
    startup.hStdOutput = startup.hStdError = output;
    PROCESS_INFORMATION process{};
    BOOL started = CreateProcessA(nullptr, &command[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &process);
    CloseHandle(output);
    if (!inputFile.empty()) CloseHandle(input);
    if (!started) return nullptr;
    CloseHandle(process.hThread);
    return process.hProcess;
}

int finish(void* process, unsigned long limitMs) {
    if (process == nullptr) return -1;
    DWORD code = static_cast<DWORD>(-1);
    if (WaitForSingleObject(process, limitMs) == WAIT_TIMEOUT) {
        TerminateProcess(process, 1);
        WaitForSingleObject(process, 10000);
    } else {
        GetExitCodeProcess(process, &code);
    }
    CloseHandle(process);
    return static_cast<int>(code);
}

std::string useFreshStore(const std::string& name) {
    std::string folder = workDir() + "/stores/" + name;
    runHost("rm -rf '" + folder + "' && mkdir -p '" + folder + "'");
    SetEnvironmentVariableA("ORVANE_TOKEN_STORE", windowsPath(folder).c_str());
    return folder;
}

void addToken(const std::string& serial, bool signedOn, int retries) {
    EXPECT_EQ(0, softtoken::admin::createToken(serial, serial, "1234", retries)) << serial;
    if (signedOn) {
        EXPECT_EQ(0, softtoken::admin::setSignOn(serial, 1, 1)) << serial;
    }
}

void freshToken(const std::string& serial, bool signedOn, int retries) {
    useFreshStore(serial);
    addToken(serial, signedOn, retries);
}

std::string newKeyPair(const std::string& serial, int keyType, int usage, const std::string& label) {
    std::string keyId;
    EXPECT_EQ(0, softtoken::admin::generateKeyPair(serial, keyType, label, usage, 0, keyId)) << serial;
    return keyId;
}

Bytes onHost(const std::string& script, const std::string& outputFile) {
    HostResult host = runHost(script);
    EXPECT_EQ(0, host.exitCode) << script << "\n" << host.output;
    return readFile(workDir() + "/" + outputFile);
}

Bytes aesWrap(const Bytes& kek, const Bytes& key) {
    writeFile(workDir() + "/wrap-in.bin", key);
    return onHost("openssl enc -id-aes" + std::to_string(kek.size() * 8) + "-wrap -K " + orvane::toHex(kek) +
                      " -iv A6A6A6A6A6A6A6A6 -in wrap-in.bin -out wrap-out.bin",
                  "wrap-out.bin");
}

}  // namespace orvanetest
