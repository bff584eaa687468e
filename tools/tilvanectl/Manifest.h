/*
 * The manifest parser of tilvanectl app install, on its own so that tests and
 * fuzzers can call it.
 */
#ifndef TILVANECTL_MANIFEST_H
#define TILVANECTL_MANIFEST_H

#include <iosfwd>
#include <string>

#include <host_control.h>

namespace tilvanectl {

/* Reads a manifest from `in`; `path` names it in errors. On a mistake, false
 * and `error` holds "<path>:<line>: <what>"; `package` is then partly filled. */
bool ParseManifestStream(std::istream& in, const std::string& path, tilvane::host::RegisteredPackage& package,
                         std::string& error);

}  // namespace tilvanectl

#endif
