/*
 * Why a request ended as it did: the reason code a reply carries beside its
 * text. The provider's result codes stay as they are; a reason says what was
 * refused or what failed, so that a client decides from the code, never from
 * the words. Older providers send no code (TILVANE_REASON_NONE).
 *
 * Usable from C and C++; part of the client library's interface.
 */
#ifndef TILVANE_REASON_H
#define TILVANE_REASON_H

#ifdef __cplusplus
extern "C" {
#endif

/* The result codes of the content interface that name a refusal. */
enum {
    TILVANE_RESULT_PERMISSION_DENIED = -13, /* the caller's permission level is too low */
    TILVANE_RESULT_INVALID_URI = -22        /* this table cannot be changed through this request */
};

typedef enum {
    TILVANE_REASON_NONE = 0,                /* success, or nothing is known */
    TILVANE_REASON_PERMISSION_LEVEL = 1,    /* refused: the caller's permission level is too low */
    TILVANE_REASON_NOT_CHANGEABLE = 2,      /* refused: the table cannot be changed through this request */
    TILVANE_REASON_STRICT_CONFINEMENT = 3,  /* refused by strict confinement */
    TILVANE_REASON_STATEMENT_FAILED = 4,    /* failed: a statement failed; the text is SQLite's message */
    TILVANE_REASON_BUDGET = 5,              /* failed: the request ran past a budget (time, memory, length,
                                               the size of a reply) */
    TILVANE_REASON_PROVIDER_FAILURE = 6,    /* failed: the provider's own failure; the text is its words */
    TILVANE_REASON_SYNC_END_MARK = 7,       /* an insert carried the sync end mark: the mark was sent */
    TILVANE_REASON_SYNC_START_MARK = 8,     /* an insert carried the sync start mark: nothing is sent */
    TILVANE_REASON_COUNT = 9
} tilvane_reason;

/* True for the reasons that are refusals (the request was not allowed), false
 * for failures and the rest. */
static inline int tilvane_reason_is_refusal(tilvane_reason reason)
{
    return reason == TILVANE_REASON_PERMISSION_LEVEL || reason == TILVANE_REASON_NOT_CHANGEABLE ||
           reason == TILVANE_REASON_STRICT_CONFINEMENT;
}

/* The fixed words of a reason that has them ("permission level too low"), ""
 * for the reasons whose words come with the reply (SQLite's message, the
 * provider's text, a budget's). */
static inline const char* tilvane_reason_words(tilvane_reason reason)
{
    switch (reason) {
    case TILVANE_REASON_PERMISSION_LEVEL: return "permission level too low";
    case TILVANE_REASON_NOT_CHANGEABLE: return "this table cannot be changed through this request";
    case TILVANE_REASON_SYNC_END_MARK: return "sync end mark sent";
    case TILVANE_REASON_SYNC_START_MARK: return "sync start mark: nothing is sent";
    default: return "";
    }
}

/* The reason's name as an error reply carries it ("PermissionLevel"), "" for
 * none. */
static inline const char* tilvane_reason_name(tilvane_reason reason)
{
    switch (reason) {
    case TILVANE_REASON_PERMISSION_LEVEL: return "PermissionLevel";
    case TILVANE_REASON_NOT_CHANGEABLE: return "NotChangeable";
    case TILVANE_REASON_STRICT_CONFINEMENT: return "StrictConfinement";
    case TILVANE_REASON_STATEMENT_FAILED: return "StatementFailed";
    case TILVANE_REASON_BUDGET: return "Budget";
    case TILVANE_REASON_PROVIDER_FAILURE: return "ProviderFailure";
    case TILVANE_REASON_SYNC_END_MARK: return "SyncEndMark";
    case TILVANE_REASON_SYNC_START_MARK: return "SyncStartMark";
    default: return "";
    }
}

#ifdef __cplusplus
}
#endif

#endif
