/*
 * The client side of rows on the wire (requests/row_codec.h): a select
 * reply's bytes read into the client library's RowSet. Internal to the host
 * platform.
 */
#ifndef TILVANE_PLATFORM_ROW_DECODER_H
#define TILVANE_PLATFORM_ROW_DECODER_H

#include <cstddef>
#include <cstdint>

#include "tilvane_client.h"

namespace tilvane {
namespace host {

/* False for a malformed encoding. */
bool DecodeRows(const uint8_t* data, size_t size, client::RowSet& rows);

}  // namespace host
}  // namespace tilvane

#endif
