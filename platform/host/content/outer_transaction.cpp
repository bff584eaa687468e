#include "content/outer_transaction.h"

#include <sqlite3.h>

#include "host_control/base.h"

#include "content/content_log.h"
#include "content/database.h"

namespace tilvane {
namespace content {
namespace {

thread_local OuterTransaction* t_current = nullptr;

bool InAutocommit(Database& database)
{
    return sqlite3_get_autocommit(database.Handle()) != 0;
}

void Forget(Database& database)
{
    database.m_nTransactionDepth = 0;
    database.m_bTransactionFailed = false;
    database.m_bInOuterTransaction = false;
}

/* COMMIT, or ROLLBACK when `commit` is false or the commit fails: 0 or the
 * commit's result. */
int EndOne(Database& database, bool commit)
{
    std::lock_guard<std::recursive_mutex> lock(database.Mutex());
    int result = 0;
    if (database.m_nTransactionDepth != 1) {
        CONTENT_LOGE("%s: %d transaction level(s) of a step still open; rolling back", database.Path().c_str(),
                     database.m_nTransactionDepth - 1);
        result = commit ? SQLITE_MISUSE : 0;
        commit = false;
    }
    if (commit && tilvane::host::ShouldFail("OuterTransaction::Commit")) {
        CONTENT_LOGE("commit of %s failed on purpose", database.Path().c_str());
        result = SQLITE_IOERR;
        commit = false;
    }
    if (commit && !InAutocommit(database)) {
        std::string error;
        result = database.ExecPrepared("COMMIT", &error);
        if (result != SQLITE_OK) {
            CONTENT_LOGE("commit of the steps on %s: %s (%d); rolling back", database.Path().c_str(),
                         error.c_str(), result);
        }
    } else if (commit) {
        CONTENT_LOGE("the transaction on %s was rolled back by SQLite before the commit", database.Path().c_str());
        result = SQLITE_ABORT;
    }
    if (result != SQLITE_OK || !commit) {
        if (!InAutocommit(database)) {
            database.ExecPrepared("ROLLBACK", nullptr);
        }
    }
    Forget(database);
    return result;
}

}  // namespace

OuterTransaction::OuterTransaction()
{
    if (t_current == nullptr) {
        t_current = this;
        m_active = true;
    }
}

OuterTransaction::~OuterTransaction()
{
    Rollback();
}

OuterTransaction* OuterTransaction::Current()
{
    return t_current;
}

int OuterTransaction::Commit()
{
    int firstFailure = 0;
    if (m_active) {
        EndAll(true, firstFailure);
    }
    return firstFailure;
}

void OuterTransaction::Rollback()
{
    int ignored = 0;
    if (m_active) {
        EndAll(false, ignored);
    }
}

void OuterTransaction::EndAll(bool commit, int& firstFailure)
{
    t_current = nullptr;
    m_active = false;
    for (const std::shared_ptr<Database>& database : m_joined) {
        const int ended = EndOne(*database, commit && firstFailure == 0);
        if (firstFailure == 0) {
            firstFailure = ended;
        }
    }
    m_joined.clear();
}

bool OuterTransaction::Join(const std::shared_ptr<Database>& database)
{
    if (!m_active || database->Handle() == nullptr) {
        return true;
    }
    if (database->m_bInOuterTransaction) {
        if (!InAutocommit(*database)) {
            return true;
        }
        // SQLite ended the transaction on its own (a full disk, an I/O error):
        // a later step must not run outside it and be stored alone.
        m_joinFailure = m_joinFailure != 0 ? m_joinFailure : SQLITE_ABORT;
        m_joinFailureText = "the transaction was rolled back by SQLite after a failed write";
        return false;
    }
    int result = SQLITE_MISUSE;
    std::string error = "a transaction of its own is still open";
    if (database->m_nTransactionDepth == 0) {
        result = database->ExecPrepared("BEGIN IMMEDIATE", &error);
    }
    if (result != SQLITE_OK) {
        CONTENT_LOGE("%s cannot join the transaction of the steps: %s (%d)", database->Path().c_str(), error.c_str(),
                     result);
        if (m_joinFailure == 0) {
            m_joinFailure = result;
            m_joinFailureText = error;
        }
        return false;
    }
    database->m_nTransactionDepth = 1;
    database->m_bInOuterTransaction = true;
    m_joined.push_back(database);
    return true;
}

}  // namespace content
}  // namespace tilvane
