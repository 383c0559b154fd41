// The software token's store under writers killed at random moments (TerminateProcess, the
// Windows kill -9): two writer processes keep changing their own tokens and acknowledge each
// write once it has returned; one of them is killed at a random moment, checked and started
// again, over and over. Every acknowledged write must be there afterwards, nothing may go
// back to an older value, and a reader process running throughout must never find the store
// unreadable.
//
// ORVANE_DURABILITY_KILLS sets the number of kills (default 20; 200 with
// ORVANE_RELIABILITY_LONG=1); ORVANE_DURABILITY_SEED repeats a run's random moments.
#include <windows.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <sstream>

#include "softtoken/SoftTokenAdmin.h"
#include "tests/reliability/ProcessFigures.h"
#include "tests/support/TestSupport.h"

using namespace orvanetest;
namespace admin = softtoken::admin;

namespace {

// Complete lines only: a line cut by the kill was never acknowledged.
std::vector<std::string> linesOf(const std::string& file) {
    Bytes bytes = readFile(file);
    std::string text(bytes.begin(), bytes.end());
    text.erase(text.find_last_of('\n') == std::string::npos ? 0 : text.find_last_of('\n') + 1);
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

struct Writer {
    std::string serial;
    std::string outputStem;
    std::string outputFile;  // this life's: a killed life's file may still be open for a while
    int lives = 0;
    HANDLE process = nullptr;
    long long lastAcknowledged = 0;        // highest step acknowledged by any of its lives
    std::set<long long> acknowledgedKeys;  // steps that stored a key
    long long acknowledgedRetries = 0;     // highest tries value acknowledged

    void start() {
        outputFile = outputStem + "-" + std::to_string(++lives) + ".out";
        process = startProgram("orvane-store-writer.exe",
                               "write " + serial + " " + std::to_string(lastAcknowledged + 1), outputFile);
        ASSERT_NE(nullptr, process);
        for (int waited = 0; waited < 20000; waited += 5) {
            std::vector<std::string> lines = linesOf(outputFile);
            if (!lines.empty() && lines[0] == "ready") return;
            ASSERT_NE(WAIT_OBJECT_0, WaitForSingleObject(process, 0)) << serial << " writer ended: " << lines.size();
            Sleep(5);
        }
        FAIL() << serial << " writer never became ready";
    }

    // Kills the writer and takes in what it acknowledged; returns how many writes that was.
    long long kill() {
        TerminateProcess(process, 9);
        WaitForSingleObject(process, INFINITE);
        CloseHandle(process);
        process = nullptr;
        long long acknowledged = 0;
        for (const std::string& line : linesOf(outputFile)) {
            if (line == "ready") continue;
            EXPECT_EQ(std::string::npos, line.find("error")) << serial << ": " << line;
            long long step = std::atoll(line.c_str());
            ++acknowledged;
            lastAcknowledged = std::max(lastAcknowledged, step);
            if (step % 4 == 0)
                acknowledgedKeys.insert(step);
            else
                acknowledgedRetries = std::max(acknowledgedRetries, step);
        }
        return acknowledged;
    }
};

// Acknowledged writes the store does not show, as this process reads it now.
long long lostWrites(const std::string& description, const std::vector<Writer>& writers) {
    nlohmann::json state = nlohmann::json::parse(description, nullptr, false);
    if (state.is_discarded() || !state.contains("tokens")) {
        ADD_FAILURE() << "unreadable store: " << description;
        return 0;
    }
    long long lost = 0;
    for (const Writer& writer : writers) {
        for (const nlohmann::json& token : state["tokens"]) {
            if (token.value("serial", "") != writer.serial) continue;
            long long retries = token.value("retriesLeft", -1LL);
            // A killed writer may have committed one write after its last acknowledgement, never more.
            if (writer.process == nullptr) {
                EXPECT_LE(retries, writer.lastAcknowledged + 1) << writer.serial;
            }
            if (retries < writer.acknowledgedRetries) {
                ADD_FAILURE() << writer.serial << ": tries " << retries << ", acknowledged "
                              << writer.acknowledgedRetries;
                for (long long step = retries + 1; step <= writer.acknowledgedRetries; ++step) lost += step % 4 != 0;
            }
            std::set<std::string> labels;
            for (const nlohmann::json& key : token["secretKeys"]) labels.insert(key.value("label", ""));
            for (long long step : writer.acknowledgedKeys)
                if (labels.count(writer.serial + "-" + std::to_string(step)) == 0) {
                    ++lost;
                    ADD_FAILURE() << writer.serial << ": acknowledged key of step " << step << " is missing";
                }
        }
    }
    return lost;
}

TEST(StoreDurability, AcknowledgedWritesSurviveWritersKilledAtRandomMoments) {
    long long kills = environmentNumber("ORVANE_DURABILITY_KILLS", longForm() ? 200 : 20);
    unsigned seed = static_cast<unsigned>(environmentNumber("ORVANE_DURABILITY_SEED", GetTickCount()));
    std::printf("[durability] seed %u (ORVANE_DURABILITY_SEED repeats the run)\n", seed);
    std::mt19937 random(seed);

    std::string store = useFreshStore("durability");
    std::vector<Writer> writers(2);
    writers[0].serial = "DURABLE-A";
    writers[1].serial = "DURABLE-B";
    for (Writer& writer : writers) {
        ASSERT_EQ(0, admin::createToken(writer.serial, writer.serial, "1234", 1));
        writer.outputStem = workDir() + "/" + writer.serial;
    }
    std::string stopFile = store + "-stop";
    DeleteFileA(windowsPath(stopFile).c_str());
    HANDLE watcher = startProgram("orvane-store-writer.exe", "watch " + windowsPath(stopFile) + " DURABLE-A DURABLE-B",
                                  workDir() + "/watcher.out");
    ASSERT_NE(nullptr, watcher);
    for (Writer& writer : writers) ASSERT_NO_FATAL_FAILURE(writer.start());

    long long acknowledged = 0, lost = 0;
    for (long long kill = 0; kill < kills; ++kill) {
        Writer& writer = writers[random() % writers.size()];
        Sleep(std::uniform_int_distribution<DWORD>(0, 150)(random));
        acknowledged += writer.kill();
        lost += lostWrites(admin::describe(), writers);
        ASSERT_NO_FATAL_FAILURE(writer.start());
    }
    for (Writer& writer : writers) acknowledged += writer.kill();

    // A process that never read the store before must see the same.
    std::string listed = workDir() + "/list.out";
    ASSERT_EQ(0, finish(startProgram("orvane-token.exe", "list", listed)));
    Bytes coldView = readFile(listed);
    long long lostCold = lostWrites(std::string(coldView.begin(), coldView.end()), writers);

    writeText(stopFile, "stop");
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(watcher, 30000));
    CloseHandle(watcher);
    std::vector<std::string> watched = linesOf(workDir() + "/watcher.out");
    ASSERT_FALSE(watched.empty());
    for (size_t i = 0; i + 1 < watched.size(); ++i) ADD_FAILURE() << "reader: " << watched[i];
    long long reads = -1, unreadable = -1, reverts = -1;
    ASSERT_EQ(3, std::sscanf(watched.back().c_str(), "reads %lld unreadable %lld reverts %lld", &reads, &unreadable,
                             &reverts))
        << watched.back();

    std::printf(
        "[durability] %lld kills, %lld acknowledged writes, %lld lost (%lld by a new process); reader: %lld reads, "
        "%lld unreadable, %lld reverts\n",
        kills, acknowledged, lost, lostCold, reads, unreadable, reverts);
    EXPECT_GT(acknowledged, kills) << "the writers got to write between kills";
    EXPECT_EQ(0, lost);
    EXPECT_EQ(0, lostCold);
    EXPECT_GT(reads, 0);
    EXPECT_EQ(0, unreadable);
    EXPECT_EQ(0, reverts);
}

}  // namespace
