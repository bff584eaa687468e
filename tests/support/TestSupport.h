/*
 * Helpers shared by the tests: temporary platform roots, raw SQLite reads that
 * do not go through the content library, and captured-log queries.
 */
#ifndef TILVANE_TEST_SUPPORT_H
#define TILVANE_TEST_SUPPORT_H

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <dlog.h>
#include <gio/gio.h>
#include <host_control.h>

#include "PreviewApps.h"

struct sqlite3;

namespace tilvane {
namespace test {

/* A fresh directory under $TMPDIR, removed with everything in it at destruction. */
class TempDir
{
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& Path() const { return m_path; }
    std::string File(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

/* Makes the platform under `root` run in the development identity mode (every
 * process one user, nothing checked), as the tests that run every process as
 * one user need: writes "[identity] mode = development" to
 * <root>/etc/tilvane.conf, keeping what the file already says. */
void UseDevelopmentIdentities(const std::string& root);

/* A TempDir used as a platform root in the development identity mode. */
class DevelopmentRoot : public TempDir
{
public:
    DevelopmentRoot() { UseDevelopmentIdentities(Path()); }
};

/* One column as PRAGMA table_info reports it. */
struct ColumnInfo
{
    std::string name;
    std::string type;
    bool hasDefault;
    std::string defaultValue;
    bool primaryKey;
};

/* Reads a database file with SQLite directly. */
class RawDatabase
{
public:
    explicit RawDatabase(const std::string& path);
    ~RawDatabase();
    RawDatabase(const RawDatabase&) = delete;
    RawDatabase& operator=(const RawDatabase&) = delete;

    bool IsOpen() const { return m_db != nullptr; }
    /* Runs statements; returns SQLite's result code. */
    int Exec(const std::string& sql);
    /* The first column of every row of `sql`, as text ("NULL" for NULL). */
    std::vector<std::string> Column(const std::string& sql);
    /* The first column of the first row, or "" when there is none. */
    std::string Scalar(const std::string& sql);
    int64_t Count(const std::string& table);
    std::vector<std::string> TableNames();
    std::vector<ColumnInfo> TableInfo(const std::string& table);
    /* Every column of every row of the tables, as exact SQL literals, one
     * line per row: two dumps are equal when the rows are, byte for byte. */
    std::string Dump(const std::vector<std::string>& tables);

private:
    sqlite3* m_db;
};

bool FileExists(const std::string& path);
void WriteFile(const std::string& path, const std::string& content);
std::string RandomBytes(size_t count, unsigned seed);
/* The binary form of a row as a request carries it, written by hand for tests
 * that speak the raw wire: "TVB" 1, the entry count, then each key and value
 * after its length (32-bit little-endian). Duplicates and empty keys allowed. */
std::string BinaryRow(const std::vector<std::pair<std::string, std::string>>& entries);
/* The bytes of a method call with `body` (a floating reference is sunk) and
 * `serial`, as a peer writes them on a peer-to-peer connection: for tests
 * that speak the raw wire. */
std::string MethodCallBytes(const char* path, const char* interfaceName, const char* method, GVariant* body,
                            guint32 serial);
void TruncateFile(const std::string& path, size_t size);
size_t FileSize(const std::string& path);
/* The lines of `text`, without their line ends. */
std::vector<std::string> Lines(const std::string& text);

/* Captured lines of one tag whose message contains `text`. */
std::vector<host::LogLine> LinesContaining(const std::string& tag, const std::string& text);
int CountLines(const std::string& tag, const std::string& text);
/* Index of the first captured line (any tag) containing `text`, or -1. */
int IndexOfLine(const std::string& text);
/* The same for lines whose whole message is `text`. */
int CountExactLines(const std::string& tag, const std::string& text);
int IndexOfExactLine(const std::string& text);

/* Sets up a fresh host platform under a temporary root with log capture on,
 * and resets it again afterwards. */
class PlatformSandbox
{
public:
    PlatformSandbox();
    ~PlatformSandbox();

    const std::string& Root() const { return m_root.Path(); }
    /* Where the service keeps its databases under this root. */
    std::string DatabaseDirectory() const;

private:
    TempDir m_root;
};

/* ---- message bus ----------------------------------------------------------- */

/* A dbus-daemon of its own for one test: started by the constructor, which
 * points DBUS_SESSION_BUS_ADDRESS at it, and killed by the destructor, which
 * puts the variable back. Start it before anything connects to the bus. By
 * default it runs with tests/data/private-bus.conf: a session bus whose
 * message limit is stated (32 MiB). */
class PrivateBus
{
public:
    PrivateBus();
    /* A dbus-daemon started with `daemonOptions` instead of the default
     * configuration file. */
    explicit PrivateBus(const std::vector<std::string>& daemonOptions);
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    bool IsRunning() const { return !m_address.empty(); }
    const std::string& Address() const { return m_address; }

    /* Kills the daemon (every connection is lost at once). */
    void Stop();
    /* Kills the daemon and starts it again with the same options; with an
     * address option it listens where it did before. False when the new
     * daemon does not run or listens elsewhere. (Addresses are kept without
     * the daemon's guid, so that clients can connect to the new daemon.) */
    bool Restart();

    /* The default configuration file. */
    static std::string DefaultConfigFile();

private:
    bool Start();

    std::vector<std::string> m_options;
    int m_pid;
    std::string m_address;
    bool m_hadAddress;
    std::string m_previousAddress;
};

/* A forked copy of the test process that runs `body` and exits with its
 * result. The child waits for Go() before it starts, so that the parent can
 * get ready first; it may write its ready byte (SignalReady) for WaitReady().
 * Fork before this process opens its own bus connection: the child must not
 * inherit one. The destructor kills a child that is still running. */
class ChildProcess
{
public:
    explicit ChildProcess(const std::function<int(int readyFd)>& body);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool Started() const { return m_pid > 0; }
    bool Go() const;
    bool WaitReady() const;
    /* The exit code (128 + signal when killed), or -1 when it did not end in time. */
    int Wait(int timeoutMs);
    static void SignalReady(int readyFd);

private:
    int m_pid = -1;
    bool m_reaped = false;
    int m_goFd = -1;
    int m_readyFd = -1;
};

/* Runs the GLib default main context (where message-port callbacks are
 * delivered) until `done` returns true or `timeoutMs` of real time pass;
 * returns `done`'s last answer. */
bool IterateMainContextUntil(const std::function<bool()>& done, int timeoutMs);

}  // namespace test
}  // namespace tilvane

#endif
