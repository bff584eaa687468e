/*
 * One transaction around several requests that run one after the other on one
 * thread: the steps of an atomic publish (requests/content_publish.cpp).
 *
 * While an OuterTransaction is open on a thread, every database that a
 * connection of the content library reads or writes on that thread joins it:
 * the first use begins an SQLite transaction (BEGIN IMMEDIATE) that stays open
 * until Commit or Rollback. The provider's own code runs unchanged inside it:
 * its single writes run in the open transaction, and a BeginTransaction /
 * EndTransaction pair of its bulk handlers becomes a savepoint (SAVEPOINT,
 * then RELEASE, or ROLLBACK TO and RELEASE), so that a handler that rolls its
 * own work back undoes that work only and answers exactly as it would alone.
 *
 * Nothing is stored until Commit. A Commit that fails, a Rollback, and an
 * OuterTransaction destroyed without either, leave every joined database as
 * it was before the first step. Internal to the host platform.
 */
#ifndef TILVANE_CONTENT_OUTER_TRANSACTION_H
#define TILVANE_CONTENT_OUTER_TRANSACTION_H

#include <memory>
#include <string>
#include <vector>

namespace tilvane {
namespace content {

class Database;

class OuterTransaction
{
public:
    /* Opens on the calling thread. An OuterTransaction opened while another
     * one is open on the thread is inactive: the outer one keeps the work. */
    OuterTransaction();
    ~OuterTransaction();
    OuterTransaction(const OuterTransaction&) = delete;
    OuterTransaction& operator=(const OuterTransaction&) = delete;

    /* Commits every joined database: 0, or the SQLite result of the first
     * commit that failed (that database is rolled back, and so are the ones
     * not committed yet). Closes the transaction. */
    int Commit();
    /* Rolls every joined database back and closes the transaction. */
    void Rollback();

    /* The SQLite result of the first database that could not join (its
     * BEGIN failed: busy, a transaction of its own still open), 0 when none;
     * `JoinFailureText` says why. Requests on such a database fail. */
    int JoinFailure() const { return m_joinFailure; }
    const std::string& JoinFailureText() const { return m_joinFailureText; }

    /* The transaction open on this thread, or null. */
    static OuterTransaction* Current();

    /* Called by the content library with `database` locked: makes it part of
     * the transaction (once). False when it cannot join. */
    bool Join(const std::shared_ptr<Database>& database);

private:
    void EndAll(bool commit, int& firstFailure);

    bool m_active = false;
    int m_joinFailure = 0;
    std::string m_joinFailureText;
    std::vector<std::shared_ptr<Database>> m_joined;
};

}  // namespace content
}  // namespace tilvane

#endif
