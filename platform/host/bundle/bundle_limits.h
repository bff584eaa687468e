/*
 * What a bundle read from the bus may hold, and the bounded decoder the host
 * platform uses for every bundle that arrives from another process.
 *
 * A launcher row has a few dozen columns (a tile has 27) of short texts; the
 * limits leave a wide margin above that and keep the time and memory that one
 * request can cost the service small. docs/messaging.md lists them.
 * Internal to the host platform.
 */
#ifndef TILVANE_PLATFORM_BUNDLE_LIMITS_H
#define TILVANE_PLATFORM_BUNDLE_LIMITS_H

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "bundle.h"

namespace tilvane {
namespace host {

/* One bundle. */
constexpr size_t kBundleMaxKeys = 1024;
constexpr size_t kBundleMaxKeyBytes = 1024;
/* Key and value bytes of all entries together (one value may use all of it). */
constexpr size_t kBundleMaxBytes = 1024 * 1024;
/* The transport text: no text longer than this can decode within the limits
 * above (base64 of the header, the lengths and kBundleMaxBytes of content). */
constexpr size_t kBundleMaxEncodedBytes = 4 * ((8 + 8 * kBundleMaxKeys + kBundleMaxBytes + 2) / 3);

/* The binary form: no row longer than this can decode within the limits
 * above (the header, the lengths and kBundleMaxBytes of content). */
constexpr size_t kBundleMaxBinaryBytes = 8 + 8 * kBundleMaxKeys + kBundleMaxBytes;

/* One bulk request of the content-library interface. */
constexpr size_t kBulkMaxRows = 4096;
/* All encoded rows of one bulk together. */
constexpr size_t kBulkMaxBytes = 16 * 1024 * 1024;

/* One atomic publish (Publish of the content-library interface): its steps,
 * the rows of all its steps together (each step is held to the bulk limits
 * too), the encoded rows of all its steps together, and the back-references
 * of one step. */
constexpr size_t kPublishMaxSteps = 4096;
constexpr size_t kPublishMaxRows = 65536;
constexpr size_t kPublishMaxBytes = kBulkMaxBytes;
constexpr size_t kPublishMaxReferencesPerStep = 16;

enum class BundleRefusal {
    None,
    Malformed,  /* not the transport form of a bundle */
    OverLimits  /* a well-formed bundle, or a text, beyond the limits above */
};

/* Decodes `length` bytes of transport text. Null when refused, with the reason
 * in `why` (may be null). Runs in time linear in `length`. */
bundle* DecodeBoundedBundle(const char* text, size_t length, BundleRefusal* why);

/* Decodes `size` bytes of the binary form (the transport text before its
 * base64), copying them once into the bundle's own buffer. Null when refused,
 * as DecodeBoundedBundle. Runs in time linear in `size`. */
bundle* DecodeBoundedBinaryBundle(const void* data, size_t size, BundleRefusal* why);

/* Appends the binary form of a row of (key, value) entries to `out`, each
 * text whole: one holding a NUL byte makes a form the decoder refuses (it is
 * not scanned for here, the decoder reads every byte anyway). False (and
 * `out` as it was) when a key is empty or comes twice, as bundle_add_str
 * refuses them. */
bool AppendBinaryBundle(const std::vector<std::pair<std::string, std::string>>& entries, std::string& out);

/* "not a bundle" / "over the bundle limits" */
const char* DescribeRefusal(BundleRefusal why);

}  // namespace host
}  // namespace tilvane

#endif
