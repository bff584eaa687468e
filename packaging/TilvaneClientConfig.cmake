# find_package(TilvaneClient) gives the imported target Tilvane::client: the
# shared client library with its include folder (tilvane_publisher.h,
# tilvane_c.h, tilvane_client.h, tilvane_schema.h) and C++17.
include("${CMAKE_CURRENT_LIST_DIR}/TilvaneClientTargets.cmake")
