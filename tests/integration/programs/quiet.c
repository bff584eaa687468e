/*
 * A C program built by InstallTest against the installed client library:
 * publishes one empty section and prints the outcome; with --handler, the
 * library's log lines go to its own handler, which prints them.
 */
#include <stdio.h>
#include <string.h>
#include <tilvane_c.h>
static void handler(int priority, const char *tag, const char *message, void *data) {
    (void)data; printf("log %d %s %s\n", priority, tag, message);
}
int main(int argc, char **argv) {
    if (argc > 1 && strcmp(argv[1], "--handler") == 0)
        tilvane_set_log_handler(handler, NULL);
    tilvane_publisher *publisher = tilvane_publisher_new(NULL, NULL);
    tilvane_content *content = tilvane_content_new();
    tilvane_content_add_section(content);
    tilvane_error published = tilvane_publisher_publish(publisher, content, TILVANE_REPLACE);
    printf("publish: %s\n", tilvane_error_name(published));
    tilvane_content_free(content);
    tilvane_publisher_free(publisher);
    return 0;
}
