#include "content/bounded_functions.h"

#include <string.h>

#include <string>

namespace tilvane {
namespace content {
namespace {

bool IsContinuationByte(unsigned char c)
{
    return (c & 0xc0) == 0x80;
}

/* The haystack and needle as instr compares them: bytes when both are blobs,
 * else both as text. */
struct InstrArguments
{
    const unsigned char* haystack = nullptr;
    int haystackBytes = 0;
    const unsigned char* needle = nullptr;
    int needleBytes = 0;
    bool text = true;
};

bool ReadInstrArguments(sqlite3_value** argv, InstrArguments& args)
{
    args.text = !(sqlite3_value_type(argv[0]) == SQLITE_BLOB && sqlite3_value_type(argv[1]) == SQLITE_BLOB);
    if (args.text) {
        args.haystack = sqlite3_value_text(argv[0]);
        args.haystackBytes = sqlite3_value_bytes(argv[0]);
        args.needle = sqlite3_value_text(argv[1]);
        args.needleBytes = sqlite3_value_bytes(argv[1]);
    } else {
        args.haystack = static_cast<const unsigned char*>(sqlite3_value_blob(argv[0]));
        args.haystackBytes = sqlite3_value_bytes(argv[0]);
        args.needle = static_cast<const unsigned char*>(sqlite3_value_blob(argv[1]));
        args.needleBytes = sqlite3_value_bytes(argv[1]);
    }
    return args.needle != nullptr && (args.haystackBytes == 0 || args.haystack != nullptr);
}

/* Byte offset of the first occurrence of the needle where a character starts
 * (text: the first byte, or one that does not continue a character) or
 * anywhere (blob); -1 when there is none. */
long FirstOccurrence(const InstrArguments& args)
{
    const unsigned char* at = args.haystack;
    const unsigned char* end = args.haystack + args.haystackBytes;
    while (at + args.needleBytes <= end) {
        const void* found = memmem(at, static_cast<size_t>(end - at), args.needle, static_cast<size_t>(args.needleBytes));
        if (found == nullptr) {
            return -1;
        }
        const unsigned char* match = static_cast<const unsigned char*>(found);
        if (!args.text || match == args.haystack || !IsContinuationByte(*match)) {
            return static_cast<long>(match - args.haystack);
        }
        at = match + 1;
    }
    return -1;
}

/* instr(X,Y): 1 + the characters (bytes, for two blobs) before the first Y
 * in X; 0 when there is none; 1 for an empty Y; NULL when either is NULL. */
void InstrCB(sqlite3_context* context, int /*argc*/, sqlite3_value** argv)
{
    if (sqlite3_value_type(argv[0]) == SQLITE_NULL || sqlite3_value_type(argv[1]) == SQLITE_NULL) {
        return;
    }
    InstrArguments args;
    if (!ReadInstrArguments(argv, args)) {
        sqlite3_result_error_nomem(context);
        return;
    }
    if (args.needleBytes == 0) {
        sqlite3_result_int(context, 1);
        return;
    }
    const long offset = FirstOccurrence(args);
    if (offset < 0) {
        sqlite3_result_int(context, 0);
        return;
    }
    /* One more for every character that starts after the first byte, up to
     * and including the match. */
    long position = 1;
    for (long i = 1; i <= offset; ++i) {
        if (!args.text || !IsContinuationByte(args.haystack[i])) {
            ++position;
        }
    }
    sqlite3_result_int64(context, position);
}

/* replace(X,Y,Z): X with every Y, from the left and not overlapping, made Z;
 * X itself when Y is empty; NULL when any is NULL. Always text. */
void ReplaceCB(sqlite3_context* context, int /*argc*/, sqlite3_value** argv)
{
    const char* text = reinterpret_cast<const char*>(sqlite3_value_text(argv[0]));
    if (text == nullptr) {
        return;
    }
    const size_t textBytes = static_cast<size_t>(sqlite3_value_bytes(argv[0]));
    const char* pattern = reinterpret_cast<const char*>(sqlite3_value_text(argv[1]));
    if (pattern == nullptr) {
        return;
    }
    if (*pattern == '\0') {
        sqlite3_result_text(context, text, static_cast<int>(textBytes), SQLITE_TRANSIENT);
        return;
    }
    const size_t patternBytes = static_cast<size_t>(sqlite3_value_bytes(argv[1]));
    const char* replacement = reinterpret_cast<const char*>(sqlite3_value_text(argv[2]));
    if (replacement == nullptr) {
        return;
    }
    const size_t replacementBytes = static_cast<size_t>(sqlite3_value_bytes(argv[2]));
    const size_t limit = static_cast<size_t>(sqlite3_limit(sqlite3_context_db_handle(context), SQLITE_LIMIT_LENGTH, -1));
    std::string out;
    size_t at = 0;
    while (at + patternBytes <= textBytes) {
        const void* found = memmem(text + at, textBytes - at, pattern, patternBytes);
        if (found == nullptr) {
            break;
        }
        const size_t match = static_cast<size_t>(static_cast<const char*>(found) - text);
        if (out.size() + (match - at) + replacementBytes > limit) {
            sqlite3_result_error_toobig(context);
            return;
        }
        out.append(text + at, match - at).append(replacement, replacementBytes);
        at = match + patternBytes;
    }
    out.append(text + at, textBytes - at);
    if (out.size() > limit) {
        sqlite3_result_error_toobig(context);
        return;
    }
    sqlite3_result_text(context, out.data(), static_cast<int>(out.size()), SQLITE_TRANSIENT);
}

}  // namespace

int RegisterLinearFunctions(sqlite3* db)
{
    const int flags = SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS;
    int rc = sqlite3_create_function_v2(db, "instr", 2, flags, nullptr, InstrCB, nullptr, nullptr, nullptr);
    if (rc == SQLITE_OK) {
        rc = sqlite3_create_function_v2(db, "replace", 3, flags, nullptr, ReplaceCB, nullptr, nullptr, nullptr);
    }
    return rc;
}

}  // namespace content
}  // namespace tilvane
