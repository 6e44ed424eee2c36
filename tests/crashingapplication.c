// An application in C, of several named threads, that crashes in the way it is told to. When it is
// back, it says so. tst_client builds it as somebody else's, against the installed library.
//
// Usage: crashing-application HANDLER MINIMUM-UPTIME UPTIME WAY
//   HANDLER  the path of the crash handler, or - for the one that is installed with the library
//   WAY      null-pointer, stack-overflow, two-threads, forked-child (that crashes first), or the
//            number of the signal that it raises; with thread- before it, another thread does so

#define _GNU_SOURCE
#include <vastel-mail/crashreporting_c.h>

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

static const char *way;
static const char inThread[] = "thread-";
static pthread_barrier_t threadsReady;

static int readMessageSize(const int *message)
{
    return *message;
}

static int openMessage(void)
{
    const int *volatile message = NULL; // volatile hides the null from the compiler
    return readMessageSize(message);
}

static int countNestedReplies(int depth)
{
    // Smaller than a page, so that no frame skips the guard page of a thread's stack.
    volatile int repliesAt[512];
    repliesAt[0] = depth;
    return depth < 0 ? 0 : countNestedReplies(depth + 1) + repliesAt[0];
}

static void crash(const char *how)
{
    if (strcmp(how, "forked-child") == 0 && fork() != 0) {
        int status = 0;
        wait(&status);
        fprintf(stderr, "the forked child was ended by signal %d\n", WTERMSIG(status));
    }
    if (strcmp(how, "stack-overflow") == 0) {
        // After a nested signal stack, the thread has its own again.
        vastel_mail_end_signal_stack(vastel_mail_begin_signal_stack());
        countNestedReplies(0);
    }
    if (atoi(how) > 0)
        raise(atoi(how));
    openMessage();
}

static void *work(void *name)
{
    struct vastel_mail_signal_stack *const stack = vastel_mail_begin_signal_stack();
    pthread_setname_np(pthread_self(), name);
    pthread_barrier_wait(&threadsReady);
    if (strcmp(way, "two-threads") == 0)
        openMessage();
    if (strncmp(way, inThread, strlen(inThread)) == 0 && strcmp(name, "mail-send") == 0)
        crash(way + strlen(inThread));
    pause();
    vastel_mail_end_signal_stack(stack);
    return NULL;
}

int main(int argc, char *argv[])
{
    if (argc != 5)
        return EXIT_FAILURE;
    struct vastel_mail_crash_settings settings = VASTEL_MAIL_CRASH_SETTINGS_INIT;
    settings.app_name = getenv("NAME"); // by which the test finds its dump file
    if (strcmp(argv[1], "-") != 0)
        settings.handler_path = argv[1];
    settings.minimum_uptime = atoi(argv[2]);
    way = argv[4];
    if (vastel_mail_install_crash_reporting(&settings) == -1)
        perror("crashes will not be reported");
    if (open("crashed", O_CREAT | O_EXCL, S_IRUSR) == -1) {
        fputs("back again\n", stderr);
        return EXIT_SUCCESS;
    }

    pthread_t indexer;
    pthread_t sender;
    pthread_barrier_init(&threadsReady, NULL, 3);
    pthread_create(&indexer, NULL, work, "mail-index");
    pthread_create(&sender, NULL, work, "mail-send");
    pthread_barrier_wait(&threadsReady);
    sleep((unsigned int)atoi(argv[3]));
    if (strcmp(way, "two-threads") == 0 || strncmp(way, inThread, strlen(inThread)) == 0)
        pause();
    crash(way);
}
