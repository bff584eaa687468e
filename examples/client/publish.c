/*
 * The same publish through the C interface:
 *   cc publish.c $(pkg-config --cflags --libs tilvane-client)
 * Run it as an application that supports the launcher:
 *   TILVANE_APP_ID=org.example.videos.main ./publish-c
 */
#include <stdio.h>

#include <tilvane_c.h>

int main(void)
{
    tilvane_publisher *publisher = tilvane_publisher_new(NULL, NULL);
    tilvane_content *content = tilvane_content_new();
    tilvane_row *section = tilvane_content_add_section(content);
    tilvane_row_set_text(section, TILVANE_SECTION_TITLE, "Evening news");
    tilvane_row_set_text(tilvane_section_add_tile(section), TILVANE_TILE_TITLE, "Headlines");
    tilvane_row *weather = tilvane_section_add_tile(section);
    tilvane_row_set_text(weather, TILVANE_TILE_TITLE, "Weather");
    tilvane_row_set_int(weather, TILVANE_TILE_IMAGE_RATIO, TILVANE_RATIO_WIDE);

    tilvane_content *read = NULL;
    int ok = tilvane_publisher_publish(publisher, content, TILVANE_REPLACE) == TILVANE_OK &&
             tilvane_publisher_read(publisher, &read) == TILVANE_OK && tilvane_content_equal(read, content);
    if (!ok) {
        fprintf(stderr, "%s\n", tilvane_publisher_reason(publisher));
    } else {
        printf("published and read back %d section(s)\n", tilvane_content_section_count(read));
    }
    tilvane_content_free(read);
    tilvane_content_free(content);
    tilvane_publisher_free(publisher);
    return ok ? 0 : 1;
}
