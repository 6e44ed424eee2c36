// An application in C that crashes. tst_client builds it as somebody else's.
//
// Usage: crashing-application WAY [THREAD...]
//   WAY     one of those in crash(), the number of a signal to raise, or 0 for a null pointer
//   THREAD  anything: that many threads crash in place of the main thread
// Variables: NAME and HANDLER are settings of the library. UPTIME are milliseconds that pass, at
// once, before the crash; when it is back, it says so. BEFORE_IT_WAITS is a script that the child
// runs before it waits, WHILE_IT_WAITS one that runs before the application permits it to go on.

#define _GNU_SOURCE
#include <vastel-mail/crashreporting_c.h>

#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

static const char *way;
static const char *beforeItWaits;
static const char *whileItWaits;
static long long now = 1500; // milliseconds

// The library calls these two in place of the C library's, so that nothing depends on chance.

int clock_gettime(clockid_t clock, struct timespec *time)
{
    const long long value = clock == CLOCK_MONOTONIC ? now : 0;
    *time = (struct timespec){value / 1000, value % 1000 * 1000000};
    return 0;
}

int prctl(int option, ...)
{
    va_list list;
    va_start(list, option);
    const int argument = va_arg(list, int);
    va_end(list);
    const char *const script = option == PR_SET_PTRACER ? whileItWaits : beforeItWaits;
    if (script != NULL && argument != 0) {
        char command[1000];
        snprintf(command, sizeof command, "parent=%d child=%d; %s", getppid(), argument, script);
        if (system(command) != 0)
            perror(command);
    }
    return (int)syscall(SYS_prctl, option, argument, 0, 0, 0);
}

static int is(const char *name)
{
    return strcmp(way, name) == 0;
}

static void install(void)
{
    struct vastel_mail_crash_settings settings = VASTEL_MAIL_CRASH_SETTINGS_INIT;
    char name[100]; // the library copies it
    snprintf(name, sizeof name, "%s", getenv("NAME"));
    settings.app_name = name;
    settings.handler_path = getenv("HANDLER");
    if (vastel_mail_install_crash_reporting(&settings) == -1)
        perror("crashes will not be reported");
}

static void onUserSignal(int number)
{
    dprintf(STDOUT_FILENO, "signal %d\n", number);
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

static void crashInChild(int flags)
{
    static char stack[65536];
    int status = 0;
    waitpid(clone(openMessage, stack + sizeof stack, flags | SIGCHLD, NULL), &status, 0);
    if (WTERMSIG(status) != SIGSEGV)
        dprintf(STDOUT_FILENO, "child: signal %d\n", WTERMSIG(status));
}

static void *crash(void *thread)
{
    if (thread != NULL)
        vastel_mail_begin_signal_stack();
    if (is("child"))
        crashInChild(0);
    if (is("child-of-vfork"))
        crashInChild(CLONE_VM | CLONE_VFORK);
    if (is("child-of-same-id"))
        crashInChild(CLONE_NEWPID);
    if (is("child-that-installs") && fork() == 0)
        install();
    if (is("no-process") && unshare(CLONE_NEWPID) == 0)
        crashInChild(0); // process 1 of the new namespace, which ends with it
    if (is("fork-handler"))
        pthread_atfork(abort, NULL, NULL);
    if (is("no-variables"))
        environ = (char **)1;
    while (is("no-descriptor") && dup(STDOUT_FILENO) != -1)
        continue;
    if (is("cancelled"))
        pthread_cancel(pthread_self());
    // Behind the end of its stack lies the C library's own memory of a thread. Anything but zeros
    // there can make the kernel end the process (rseq(2)).
    char line[1];
    for (char *volatile end = line; is("endless-write"); ++end)
        *end = 0;
    if (is("overflow"))
        countNestedReplies(0);
    if (is("abort"))
        abort();
    raise(atoi(way)); // 0 for a word: nothing
    openMessage(NULL);
    return NULL;
}

int main(int argc, char *argv[])
{
    way = argv[1];
    beforeItWaits = getenv("BEFORE_IT_WAITS");
    whileItWaits = getenv("WHILE_IT_WAITS");
    install();
    const char *const uptime = getenv("UPTIME");
    if (symlink("crash", "crashed") == -1)
        return uptime != NULL && puts("back") < 0;
    if (uptime != NULL)
        now += atoi(uptime);
    signal(SIGUSR1, onUserSignal);
    pthread_t thread;
    for (int number = 2; number < argc; ++number)
        pthread_create(&thread, NULL, crash, argv[number]);
    if (argc == 2)
        crash(NULL);
    pause();
}
