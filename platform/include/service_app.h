/*
 * Service-application framework: a headless application whose life runs on a
 * main loop. service_app_main calls the create callback, then runs the loop
 * until service_app_exit or a termination signal (SIGTERM, SIGINT); the
 * terminate callback runs once before service_app_main returns.
 */
#ifndef TILVANE_PLATFORM_SERVICE_APP_H
#define TILVANE_PLATFORM_SERVICE_APP_H

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
    APP_ERROR_NONE = 0,
    APP_ERROR_INVALID_PARAMETER = -22,
    APP_ERROR_OUT_OF_MEMORY = -12,
    APP_ERROR_INVALID_CONTEXT = -0x01100000 | 0x01,
    APP_ERROR_ALREADY_RUNNING = -0x01100000 | 0x03,
} app_error_e;

typedef enum {
    APP_EVENT_LOW_MEMORY = 0,
    APP_EVENT_LOW_BATTERY = 1,
    APP_EVENT_LANGUAGE_CHANGED = 2,
    APP_EVENT_DEVICE_ORIENTATION_CHANGED = 3,
    APP_EVENT_REGION_FORMAT_CHANGED = 4,
    APP_EVENT_SUSPENDED_STATE_CHANGED = 5,
} app_event_type_e;

typedef struct app_control_s *app_control_h;
typedef struct app_event_handler *app_event_handler_h;
typedef struct app_event_info *app_event_info_h;

typedef void (*app_event_cb)(app_event_info_h event_info, void *user_data);

typedef bool (*service_app_create_cb)(void *user_data);
typedef void (*service_app_terminate_cb)(void *user_data);
typedef void (*service_app_control_cb)(app_control_h app_control, void *user_data);

typedef struct {
    service_app_create_cb create;
    service_app_terminate_cb terminate;
    service_app_control_cb app_control;
} service_app_lifecycle_callback_s;

int service_app_add_event_handler(app_event_handler_h *event_handler, app_event_type_e event_type,
                                  app_event_cb callback, void *user_data);
int service_app_remove_event_handler(app_event_handler_h event_handler);

/* Runs the application; returns APP_ERROR_NONE after a normal end, an error
 * code when the arguments are wrong or the create callback refuses to start. */
int service_app_main(int argc, char **argv, service_app_lifecycle_callback_s *callback, void *user_data);
void service_app_exit(void);

#ifdef __cplusplus
}
#endif

#endif
