// Helpers shared by the test binaries that run under Wine.
#pragma once

#include <string>
#include <vector>

namespace orvanetest {

using Bytes = std::vector<unsigned char>;

// This binary's own scratch folder on the host (a Unix path), created on first use.
std::string workDir();
// Z:\... form of a Unix path.
std::string windowsPath(const std::string& unixPath);

void writeFile(const std::string& unixPath, const Bytes& bytes);
void writeText(const std::string& unixPath, const std::string& text);
Bytes readFile(const std::string& unixPath);
Bytes bytesOf(const std::string& text);
// A key id's hex name in lower case, as a caller may spell it.
std::string lowerCase(std::string text);

struct HostResult {
    int exitCode = -1;
    std::string output;  // stdout and stderr together
};
// Runs a shell script on the host (openssl lives there). Wine does not wait for Unix
// children or pass their exit codes, so the script reports through files that we poll.
HostResult runHost(const std::string& script);

// Runs the provisioning tool as a separate Windows process, with input (a PIN line for
// --pin-stdin) on its standard input when given, and returns its exit code.
int runTool(const std::string& arguments, const std::string& input = "");
// Starts a program of the build's bin folder (or a Windows path to one elsewhere) as a separate process with its stdout and stderr
// in outputFile (a Unix path) and, when inputFile is given, its stdin read from that file.
// Returns the process handle (a HANDLE), null when it did not start.
void* startProgram(const std::string& program, const std::string& arguments, const std::string& outputFile,
                   const std::string& inputFile = "");
// Waits for a process that startProgram started and closes it: its exit code, or -1 when it
// outlasted the limit and was ended.
int finish(void* process, unsigned long limitMs = 0xFFFFFFFF);

// Points the software token of this process (and of the tools it starts) at a new, empty
// store folder named after the test; returns the folder's Unix path.
std::string useFreshStore(const std::string& name);
// A token with PIN 1234 (its label is its serial), signed on in Token Manager unless told otherwise.
void addToken(const std::string& serial, bool signedOn = true, int retries = 5);
// A new store (named after the serial) holding only that token.
void freshToken(const std::string& serial, bool signedOn = true, int retries = 5);
// A key pair generated on a token; its hex id.
std::string newKeyPair(const std::string& serial, int keyType, int usage = 3, const std::string& label = "");

// Runs an OpenSSL script in the work folder and returns the file it wrote; a failing script fails the test.
Bytes onHost(const std::string& script, const std::string& outputFile);
// The key wrapped under kek by OpenSSL (RFC 3394).
Bytes aesWrap(const Bytes& kek, const Bytes& key);

}  // namespace orvanetest
