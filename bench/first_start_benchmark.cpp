// What reading the pass-signing keys at the first start, rather than at launch, adds to that
// start.
//
// BM_FirstPassCheckInAFreshProcess: a fresh process (this executable again, so that OpenSSL is
//   untouched in it) does what the helper does at launch with its keys (counts them for the log),
//   then checks a pass against the built-in keys, then a second pass; the iteration time is the
//   first check. Counters (medians) launch_us, first_us, later_us, and added_us: the first
//   check's extra time over a later one, the keys' reading plus OpenSSL's own first use (goal:
//   under 5 ms).
// BM_CheckWithKeyRead / BM_CheckReadingTheKey: one signature check in a warm process, with the
//   key read already, and reading it first (what the first start adds once OpenSSL is warm).

#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include "access/Base64.h"
#include "access/HelperPass.h"
#include "access/PassIssuer.h"
#include "access/VerificationKey.h"
#include "config/HelperInfo.h"
#include "support/PassSigner.h"

extern char** environ;

namespace {

using namespace velmora;
using Clock = std::chrono::steady_clock;

constexpr std::string_view childFlag = "--first-check-child";

double microsecondsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

// In the fresh process: the launch's key count and both checks, timed, printed as
// "launch first later" in microseconds.
int runChild(const std::string& origin, const std::string& firstPass,
             const std::string& laterPass) {
    auto start = Clock::now();
    benchmark::DoNotOptimize(HelperPass::trustedKeysText(HelperPass::keyCount()));
    const double launch = microsecondsSince(start);
    start = Clock::now();
    benchmark::DoNotOptimize(HelperPass::check(firstPass, origin));
    const double first = microsecondsSince(start);
    start = Clock::now();
    benchmark::DoNotOptimize(HelperPass::check(laterPass, origin));
    const double later = microsecondsSince(start);
    std::printf("%.1f %.1f %.1f\n", launch, first, later);
    return 0;
}

struct FreshProcessTimes {
    double launch = 0, first = 0, later = 0;
};

// Runs this executable as the child; its timings.
bool timeFreshProcess(const std::string& self, const std::string& origin,
                      FreshProcessTimes& times) {
    // Development builds trust this key, so the passes pass; elsewhere they are refused as
    // unsigned by a trusted key, after the same signature check.
    const PassSigner signer = PassSigner::development();
    const double now = PassIssuer::currentTime();
    std::vector<std::string> args = {self, std::string(childFlag), origin,
                                     signer.issue(origin, now), signer.issue(origin, now)};
    std::vector<char*> argv;
    for (auto& argument : args) argv.push_back(argument.data());
    argv.push_back(nullptr);
    int pipe[2];
    if (::pipe(pipe) != 0) return false;
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, pipe[1], STDOUT_FILENO);
    ::posix_spawn_file_actions_addclose(&actions, pipe[0]);
    pid_t child = -1;
    const bool spawned =
        ::posix_spawn(&child, self.c_str(), &actions, nullptr, argv.data(), environ) == 0;
    ::posix_spawn_file_actions_destroy(&actions);
    ::close(pipe[1]);
    std::string output;
    char buffer[128];
    for (ssize_t count; spawned && (count = ::read(pipe[0], buffer, sizeof buffer)) > 0;) {
        output.append(buffer, static_cast<std::size_t>(count));
    }
    ::close(pipe[0]);
    int status = 0;
    if (!spawned || ::waitpid(child, &status, 0) != child || status != 0) return false;
    return std::sscanf(output.c_str(), "%lf %lf %lf", &times.launch, &times.first, &times.later) ==
           3;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[values.size() / 2];
}

std::string selfPath() {
    char path[4096];
    const ssize_t length = ::readlink("/proc/self/exe", path, sizeof path - 1);
    return length > 0 ? std::string(path, static_cast<std::size_t>(length)) : std::string();
}

void BM_FirstPassCheckInAFreshProcess(benchmark::State& state) {
    const std::string self = selfPath();
    const std::string origin = HelperInfo::builtInOrigins().front();
    std::vector<double> launches, firsts, laters;
    for (auto _ : state) {
        FreshProcessTimes times;
        if (!timeFreshProcess(self, origin, times)) {
            state.SkipWithError("the child process failed");
            return;
        }
        state.SetIterationTime(times.first / 1e6);
        launches.push_back(times.launch);
        firsts.push_back(times.first);
        laters.push_back(times.later);
    }
    state.counters["launch_us"] = median(launches);
    state.counters["first_us"] = median(firsts);
    state.counters["later_us"] = median(laters);
    state.counters["added_us"] = median(firsts) - median(laters);
}
BENCHMARK(BM_FirstPassCheckInAFreshProcess)
    ->UseManualTime()
    ->Iterations(50)
    ->Unit(benchmark::kMicrosecond);

struct SignedMessage {
    PassSigner signer = PassSigner::generate();
    std::string point = Base64::decode(signer.publicKeyBase64()).value();
    std::string message = "{\"origin\":\"https://app.velmora.example\"}";
    std::string signature = signer.derSignature(message);
};

void BM_CheckWithKeyRead(benchmark::State& state) {
    const SignedMessage signedMessage;
    const auto key = HelperPass::VerificationKey::fromX963(signedMessage.point);
    for (auto _ : state) {
        benchmark::DoNotOptimize(key->verifies(signedMessage.message, signedMessage.signature));
    }
}
BENCHMARK(BM_CheckWithKeyRead)->Unit(benchmark::kMicrosecond);

void BM_CheckReadingTheKey(benchmark::State& state) {
    const SignedMessage signedMessage;
    for (auto _ : state) {
        const auto key = HelperPass::VerificationKey::parsedOnFirstUse(signedMessage.point);
        benchmark::DoNotOptimize(key->verifies(signedMessage.message, signedMessage.signature));
    }
}
BENCHMARK(BM_CheckReadingTheKey)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
    if (argc == 5 && argv[1] == childFlag) {
        return runChild(argv[2], argv[3], argv[4]);
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
