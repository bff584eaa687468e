/*
 * The shared client library (libtilvane-client): its code is the request
 * interfaces' client in platform/host/client and the host platform pieces it
 * runs on, linked in whole; this file only gives the library a source of its
 * own and a version to ask for.
 */
#include <tilvane_version.h>

extern "C" const char* tilvane_client_version(void)
{
    return TILVANE_VERSION;
}
