/*
 * The entry functions of the fuzz targets: each feeds one input to a decoder
 * that reads bus or user input and checks that what it accepted is sane.
 * libFuzzer calls them from tests/fuzz/Fuzz*.cpp (a non-empty answer aborts
 * the run); the unit tests replay the checked-in corpus through them.
 */
#ifndef TILVANE_FUZZ_TARGETS_H
#define TILVANE_FUZZ_TARGETS_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace tilvane {
namespace fuzz {

/* Each returns "" when the input was refused or accepted sanely, else what
 * was wrong. */
std::string BundleDecode(const uint8_t* data, size_t size);
std::string RowDecode(const uint8_t* data, size_t size);
std::string ManifestParse(const uint8_t* data, size_t size);
std::string JsonLinesRead(const uint8_t* data, size_t size);

}  // namespace fuzz
}  // namespace tilvane

#endif
