/*
 * Content library internals: SQLite's instr() and replace() again, with the
 * same results, in time linear in their arguments.
 *
 * SQLite's own compare the second argument at every position of the first,
 * which costs the product of their lengths within one call: 4 s on this
 * machine for a text of 1 MiB and one of 0.5 MiB, where no progress handler
 * can interrupt the statement. These find each occurrence with memmem (a
 * linear search), and are put on every connection in their place.
 */
#ifndef TILVANE_CONTENT_BOUNDED_FUNCTIONS_H
#define TILVANE_CONTENT_BOUNDED_FUNCTIONS_H

#include <sqlite3.h>

namespace tilvane {
namespace content {

/* Registers instr(X,Y) and replace(X,Y,Z) on `db`; SQLite's result code. */
int RegisterLinearFunctions(sqlite3* db);

}  // namespace content
}  // namespace tilvane

#endif
