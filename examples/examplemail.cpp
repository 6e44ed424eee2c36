// A small application whose crashes are reported, and that notices when it is back after one.
//
// Usage: example-mail [PROFILE_FOLDER [--crash]]

#include <vastel-mail/crashreporting.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <iostream>
#include <string>
#include <thread>

static void fetchMail(const std::future<void> &endOfSession)
{
    // Without it, a stack overflow of this thread would not be reported.
    const crashreporting::AlternateSignalStack signalStack;
    endOfSession.wait();
}

static int sizeOfMessage(const int *message)
{
    return *message;
}

int main(int argc, char *argv[])
{
    crashreporting::Settings settings;
    settings.appName = "Example Mail";
    // Short, for an example. An earlier crash is reported, but not followed by a restart.
    settings.minimumUptime = std::chrono::seconds(1);
    if (!crashreporting::install(settings))
        std::perror("crashes will not be reported");

    // Only a normal end removes the file. If it is there, the last session crashed or was killed.
    const std::string profile = argc > 1 ? argv[1] : ".";
    const std::string sessionFile = profile + "/example-mail.session";
    std::FILE *const session = std::fopen(sessionFile.c_str(), "wx");
    const bool isBack = session == nullptr && errno == EEXIST;
    if (session != nullptr)
        std::fclose(session);
    else if (!isBack)
        std::perror("the next session will not notice a crash");

    const char *const account = std::getenv("MAIL_ACCOUNT");
    std::cout << (isBack ? "back after a crash: " : "started: ") << profile << ", "
              << (account != nullptr ? account : "no account") << std::endl;

    std::promise<void> endOfSession;
    std::thread fetcher(fetchMail, endOfSession.get_future());
    if (argc > 2 && argv[2] == std::string("--crash") && !isBack) {
        std::this_thread::sleep_for(settings.minimumUptime);
        const int *volatile message = nullptr; // volatile hides the null from the compiler
        std::cout << sizeOfMessage(message) << " bytes\n"; // compilers drop a read without a use
    }
    // The user has quit: a crash from here on must not bring the application back.
    crashreporting::disableRestart();
    endOfSession.set_value();
    fetcher.join();
    std::remove(sessionFile.c_str());
}
