/*
 * Process entry: hands control to the platform's service-application loop,
 * which creates the provider singleton and destroys it at termination.
 */
#include <exception>

#include <service_app.h>

#include "TilesProvider.h"
#include "TilvaneLog.h"

CTilesProvider* g_pTilesProvider = nullptr;

namespace {

bool service_app_create(void* /*user_data*/)
{
    g_pTilesProvider = CTilesProvider::GetInstance();
    if (g_pTilesProvider == nullptr) {
        LOGI("%s : Tile Provider is NULL", __func__);
        std::terminate();
    }
    return true;
}

void service_app_terminate(void* /*user_data*/)
{
    CTilesProvider::ReleaseInstance();
    service_app_exit();
}

void service_app_control(app_control_h /*app_control*/, void* /*user_data*/)
{
}

void service_app_low_battery(app_event_info_h /*event_info*/, void* /*user_data*/)
{
}

void service_app_low_memory(app_event_info_h /*event_info*/, void* /*user_data*/)
{
}

void service_app_orient_changed(app_event_info_h /*event_info*/, void* /*user_data*/)
{
}

void service_app_lang_changed(app_event_info_h /*event_info*/, void* /*user_data*/)
{
}

void service_app_region_changed(app_event_info_h /*event_info*/, void* /*user_data*/)
{
}

}  // namespace

int main(int argc, char* argv[])
{
    service_app_lifecycle_callback_s lifecycle = {};
    lifecycle.create = service_app_create;
    lifecycle.terminate = service_app_terminate;
    lifecycle.app_control = service_app_control;

    // Each handle keeps a slot of its own; none is ever removed.
    app_event_handler_h lowBatteryHandler = nullptr;
    app_event_handler_h lowMemoryHandler = nullptr;
    app_event_handler_h orientationHandler = nullptr;
    app_event_handler_h languageHandler = nullptr;
    app_event_handler_h regionHandler = nullptr;

    service_app_add_event_handler(&lowBatteryHandler, APP_EVENT_LOW_BATTERY, service_app_low_battery, nullptr);
    service_app_add_event_handler(&lowMemoryHandler, APP_EVENT_LOW_MEMORY, service_app_low_memory, nullptr);
    service_app_add_event_handler(&orientationHandler, APP_EVENT_DEVICE_ORIENTATION_CHANGED,
                                  service_app_orient_changed, nullptr);
    service_app_add_event_handler(&languageHandler, APP_EVENT_LANGUAGE_CHANGED, service_app_lang_changed, nullptr);
    service_app_add_event_handler(&regionHandler, APP_EVENT_REGION_FORMAT_CHANGED, service_app_region_changed,
                                  nullptr);

    return service_app_main(argc, argv, &lifecycle, nullptr);
}
