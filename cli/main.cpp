#include "CommandLine.h"
#include "Terminal.h"
#include "core/support/StopToken.h"

#include <csignal>
#include <cstdlib>
#include <iostream>
#include <pthread.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

// Ctrl-C, termination and a closed terminal become one stop request, which kills the running
// tool and lets the command clean up and keep what a resume needs. A second one only says so:
// leaving in the middle of that would lose the state; a third leaves at once. Signals are
// blocked before any thread starts so only this waiter takes them.
veltra::JThread watchSignals(veltra::StopSource& stop, const sigset_t& signals) {
    return veltra::JThread([&stop, signals](const veltra::StopToken& done) {
        int repeated = 0;
        while (!done.stop_requested()) {
            int signal = 0;
            if (sigwait(&signals, &signal) != 0) {
                continue;
            }
            if (signal == SIGUSR1) {
                continue; // our own wake-up at exit
            }
            if (signal == SIGWINCH) {
                veltra::cli::windowResized = true;
                continue;
            }
            if (stop.stop_requested()) {
                if (++repeated >= 2) {
                    _exit(veltra::cli::exitCancelled);
                }
                static constexpr char note[] =
                    "\nVeltra is stopping and keeping the release's state; stop once more to "
                    "leave at once.\n";
                [[maybe_unused]] const auto written = ::write(STDERR_FILENO, note, sizeof note - 1);
                continue;
            }
            stop.request_stop();
        }
    });
}

} // namespace

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN);
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGUSR1, SIGWINCH}) {
        sigaddset(&signals, signal);
    }
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    veltra::StopSource stop;
    veltra::JThread watcher = watchSignals(stop, signals);

    std::vector<std::string> arguments(argv + 1, argv + argc);
    veltra::cli::CliContext context{std::cout, std::cerr, stop.get_token(), {}};
    const int status = veltra::cli::runCommandLine(arguments, context);
    std::cout.flush();

    watcher.request_stop();
    pthread_kill(watcher.native_handle(), SIGUSR1);
    return status;
}
