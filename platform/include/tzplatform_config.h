/*
 * Platform paths. Every path resolves under one root directory: the value of
 * TILVANE_PLATFORM_ROOT, or "tilvane-data" in the working directory when it is
 * not set. A directory is created the first time its path is asked for.
 */
#ifndef TILVANE_PLATFORM_TZPLATFORM_CONFIG_H
#define TILVANE_PLATFORM_TZPLATFORM_CONFIG_H

#ifdef __cplusplus
extern "C" {
#endif

enum tzplatform_variable {
    /* Root of installed applications' data; each application has <id>/data below it. */
    TZ_USER_APP = 49,
    /* Directory of the platform's system databases. */
    TZ_SYS_DB = 70,
};

/* The path of a variable, or NULL for a variable the platform does not know.
 * The text stays valid until the process ends. */
const char *tzplatform_getenv(enum tzplatform_variable id);

#ifdef __cplusplus
}
#endif

#endif
