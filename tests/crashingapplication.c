// An application in C, whose crash is reported by the crash handler that is installed with the library.

#include <vastel-mail/crashreporting_c.h>

#include <stdlib.h>

int main(void)
{
    struct vastel_mail_crash_settings settings = VASTEL_MAIL_CRASH_SETTINGS_INIT;
    settings.app_name = "Example Mail";
    if (vastel_mail_install_crash_reporting(&settings) == -1)
        return EXIT_FAILURE;
    vastel_mail_end_signal_stack(vastel_mail_begin_signal_stack());
    abort();
}
