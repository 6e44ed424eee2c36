// The application of tst_client, which crashes.
//
// Usage: crash [WAY [THREAD...]]
//   WAY     one of those in crash(), or the number of a signal to raise; then a null pointer
//   THREAD  anything: that many threads crash in place of the main thread
// Variables: NAME, HANDLER and UPTIME are settings of the library. When it is back, it says so.

#define _GNU_SOURCE
#include <vastel-mail/crashreporting_c.h>

#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

static const char *way = "";

static int is(const char *name)
{
    return strcmp(way, name) == 0;
}

static int openMessage(void *message)
{
    return *(const int *)message;
}

static int countNestedReplies(int depth)
{
    // Smaller than a page, so that no frame skips the guard page of a thread's stack.
    volatile int repliesAt[512];
    repliesAt[0] = depth;
    return depth < 0 ? 0 : countNestedReplies(depth + 1) + repliesAt[0];
}

static void *crash(void *thread)
{
    if (thread != NULL)
        vastel_mail_begin_signal_stack();
    if (is("quits"))
        vastel_mail_disable_restart();
    if (is("child") && fork() != 0) // both crash
        wait(NULL);
    if (is("fork-handler"))
        pthread_atfork(abort, NULL, NULL);
    if (is("no-variables"))
        environ = (char **)1;
    while (is("no-descriptor") && dup(STDOUT_FILENO) != -1)
        continue;
    // Behind the end of its stack lies the C library's own memory of a thread. Anything but zeros
    // there can make the kernel end the process (rseq(2)).
    char line[1];
    for (char *volatile end = line; is("endless-zeros"); ++end)
        *end = 0;
    if (is("overflow"))
        countNestedReplies(0);
    raise(atoi(way)); // 0 for a word: nothing
    openMessage(NULL);
    return NULL;
}

int main(int argc, char *argv[])
{
    struct vastel_mail_crash_settings settings = VASTEL_MAIL_CRASH_SETTINGS_INIT;
    char name[100]; // the library copies it
    settings.app_name = strcpy(name, getenv("NAME"));
    settings.handler_path = getenv("HANDLER");
    if (getenv("UPTIME") != NULL)
        settings.minimum_uptime = atoi(getenv("UPTIME"));
    if (vastel_mail_install_crash_reporting(&settings) == -1)
        perror("crashes will not be reported");
    memset(name, 0, sizeof name);
    if (symlink("crash", "crashed") == -1) // left behind by an earlier run
        return puts("back") < 0;
    if (argc > 1)
        way = argv[1];
    pthread_t thread;
    for (int number = 2; number < argc; ++number)
        pthread_create(&thread, NULL, crash, argv[number]);
    if (argc <= 2)
        crash(NULL);
    pause();
}
