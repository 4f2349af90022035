// Random calls over the whole boundary, through the shared library as a host uses it. Any call can be repeated by
// itself, and two builds of the library can be compared.
#include <chrono>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include "random_calls.hpp"

extern "C" void __sanitizer_set_death_callback(void (*callback)()) __attribute__((weak));

namespace {

using namespace random_calls;

char current[256]; // the command that repeats the call under way, for a report of a crash

void tell_current() {
    [[maybe_unused]] const auto written = write(STDERR_FILENO, current, std::strlen(current));
}

double seconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

/// Returns the number of broken promises.
std::size_t run_one(Call& call, const Export& called, bool print) {
    std::snprintf(current, sizeof(current), "random_calls --seed %ju --first %ju --calls 1 --sides %d %d%s  (%s)\n",
                  std::uintmax_t{options.seed}, std::uintmax_t{call.number}, options.sides[0], options.sides[1],
                  options.valid_only ? " --valid-only" : "", called.name);
    alarm(120);
    const double start = seconds();
    const std::clock_t start_of_work = std::clock();
    std::uint32_t status;
    bool escaped;
    std::vector<std::string> broken = run(call, called, status, escaped);
    const double work = static_cast<double>(std::clock() - start_of_work) / CLOCKS_PER_SEC, time = seconds() - start;
    alarm(0);
    if (escaped && !(seen.thrown && called.has_only_status_ok))
        broken.emplace_back("no exception leaves a call");
    if (work > 20.0)
        broken.emplace_back("a call of these sizes takes less than 20 s");
    const bool degenerate = std::string(seen.last_error) == "Error: not triangulation";
    if (!call.hostile && !degenerate && (status != status_ok || seen.errors > 0))
        broken.emplace_back("a valid call succeeds");
    for (const std::string& promise : broken)
        std::fprintf(stderr, "%s  not so: %s; last error: %s\n", current, promise.c_str(), seen.last_error);
    if (!print)
        return broken.size();
    std::printf("%ju %s %dx%d status=%u", std::uintmax_t{call.number}, called.name, call.width, call.height, status);
    for (const auto& array : call.arrays)
        if (array->use != Use::in)
            std::printf(" %s%s=%016jx", array->use == Use::unordered ? "~" : "", array->name,
                        std::uintmax_t{array->hash()});
    std::printf(" ms=%.3f cpu=%.3f\n", time * 1000.0, work * 1000.0);
    return broken.size();
}

} // namespace

int main(int argc, char** argv) {
    std::uint64_t first = 0, calls = UINT64_MAX, done = 0;
    double limit = std::numeric_limits<double>::infinity();
    std::string only;
    bool print = false;
    CLI::App app("Calls exports with random arguments and checks what every call promises. Status 1 after a finding.");
    app.add_option("--seed", options.seed);
    app.add_option("--first", first, "Number of the first call; with --calls 1 to repeat one");
    app.add_option("--calls", calls);
    app.add_option("--seconds", limit);
    app.add_option("--sides", options.sides, "Least and largest side of the grids; by default some are larger");
    app.add_option("--export", only, "Name of the only export to call");
    app.add_flag("--valid-only", options.valid_only, "No hostile arguments");
    app.add_flag("--print", print,
                 "A line for each call: number, export, size, status, and a hash of each array that it wrote, marked "
                 "by ~ if it need not repeat to the bit on several threads; last its time and that of the processor");
    CLI11_PARSE(app, argc, argv);

    if (__sanitizer_set_death_callback != nullptr)
        __sanitizer_set_death_callback(tell_current);
    for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGALRM})
        if (__sanitizer_set_death_callback == nullptr || signal == SIGALRM)
            std::signal(signal, [](int number) {
                tell_current();
                std::signal(number, SIG_DFL);
                std::raise(number);
            });

    host_queue = CreateSyclQueue("cpu", &host);
    std::size_t findings = 0;
    const double end = seconds() + limit;
    for (std::uint64_t n = first; done < calls && seconds() < end; ++n) {
        Call call(n);
        const Export& called = call.one_of<Export>(exports);
        if (!only.empty() && only != called.name)
            continue;
        ++done;
        try {
            findings += run_one(call, called, print);
        } catch (const std::bad_alloc&) {
            std::fprintf(stderr, "%s  left out: no memory for its arguments\n", current);
        }
    }
    DestroySyclQueue(host_queue);
    std::printf("%ju calls, %zu findings\n", std::uintmax_t{done}, findings);
    return findings == 0 ? 0 : 1;
}
