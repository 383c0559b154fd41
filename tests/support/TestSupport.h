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

struct HostResult {
    int exitCode = -1;
    std::string output;  // stdout and stderr together
};
// Runs a shell script on the host (openssl lives there). Wine does not wait for Unix
// children or pass their exit codes, so the script reports through files that we poll.
HostResult runHost(const std::string& script);

// Runs the provisioning tool as a separate Windows process and returns its exit code.
int runTool(const std::string& arguments);
// Starts a program of the build's bin folder as a separate process with its stdout and stderr
// in outputFile (a Unix path). Returns the process handle (a HANDLE), null when it did not start.
void* startProgram(const std::string& program, const std::string& arguments, const std::string& outputFile);

// Points the software token of this process (and of the tools it starts) at a new, empty
// store folder named after the test; returns the folder's Unix path.
std::string useFreshStore(const std::string& name);

}  // namespace orvanetest
