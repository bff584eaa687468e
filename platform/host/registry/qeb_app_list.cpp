/*
 * The web-application store's list on the host: the store ids that the
 * application registry (app_registry.cpp) records for installed packages, as
 * an array of fixed-size records.
 */
#include "qeb_app_list.h"

#include <stdlib.h>
#include <string.h>

#include <string>
#include <utility>
#include <vector>

#include "registry/app_registry.h"
#include "host_control/base.h"

extern "C" int qeb_get_app_list(int type, int subtype, int region, int sort, int offset, int reserved, void** list,
                                int* count)
{
    (void)type;
    (void)subtype;
    (void)region;
    (void)sort;
    (void)offset;
    (void)reserved;
    if (tilvane::host::ShouldFail("qeb_get_app_list")) {
        return QEB_APP_LIST_ERROR_DB_FAILED;
    }
    if (list == nullptr || count == nullptr) {
        return QEB_APP_LIST_ERROR_INVALID_PARAMETER;
    }
    *list = nullptr;
    *count = 0;
    std::vector<std::pair<std::string, std::string>> entries;
    if (tilvane::host::registry::ReadWebApps(entries) != tilvane::host::registry::Result::Ok) {
        return QEB_APP_LIST_ERROR_DB_FAILED;
    }
    if (entries.empty()) {
        return QEB_APP_LIST_ERROR_NONE;
    }
    char* records = static_cast<char*>(calloc(entries.size(), QEB_APP_RECORD_SIZE));
    if (records == nullptr) {
        return QEB_APP_LIST_ERROR_OUT_OF_MEMORY;
    }
    for (size_t i = 0; i < entries.size(); ++i) {
        char* record = records + i * QEB_APP_RECORD_SIZE;
        /* The registry refuses texts longer than QEB_APP_RECORD_TEXT_MAX, so
         * each copy keeps its terminating NUL. */
        strncpy(record + QEB_APP_RECORD_WEB_APP_ID_OFFSET, entries[i].first.c_str(), QEB_APP_RECORD_TEXT_MAX);
        strncpy(record + QEB_APP_RECORD_PACKAGE_OFFSET, entries[i].second.c_str(), QEB_APP_RECORD_TEXT_MAX);
    }
    *list = records;
    *count = static_cast<int>(entries.size());
    return QEB_APP_LIST_ERROR_NONE;
}
