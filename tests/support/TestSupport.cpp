#include "TestSupport.h"

#include <gio/gio.h>
#include <glib.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>
#include <tzplatform_config.h>

#include <filesystem>


namespace tilvane {
namespace test {

TempDir::TempDir()
{
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/tilvane-test-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    m_path = buffer.data();
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

RawDatabase::RawDatabase(const std::string& path) : m_db(nullptr)
{
    if (sqlite3_open_v2(path.c_str(), &m_db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) != SQLITE_OK) {
        sqlite3_close(m_db);
        m_db = nullptr;
    } else {
        sqlite3_busy_timeout(m_db, 5000);
    }
}

RawDatabase::~RawDatabase()
{
    sqlite3_close_v2(m_db);
}

int RawDatabase::Exec(const std::string& sql)
{
    return sqlite3_exec(m_db, sql.c_str(), nullptr, nullptr, nullptr);
}

std::vector<std::string> RawDatabase::Column(const std::string& sql)
{
    std::vector<std::string> values;
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(m_db, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
        throw std::runtime_error(std::string("cannot prepare: ") + sqlite3_errmsg(m_db));
    }
    while (sqlite3_step(statement) == SQLITE_ROW) {
        const unsigned char* text = sqlite3_column_text(statement, 0);
        values.emplace_back(text != nullptr ? reinterpret_cast<const char*>(text) : "NULL");
    }
    sqlite3_finalize(statement);
    return values;
}

std::string RawDatabase::Scalar(const std::string& sql)
{
    std::vector<std::string> values = Column(sql);
    return values.empty() ? std::string() : values.front();
}

int64_t RawDatabase::Count(const std::string& table)
{
    return std::stoll(Scalar("SELECT COUNT(*) FROM \"" + table + "\""));
}

std::vector<std::string> RawDatabase::TableNames()
{
    return Column("SELECT name FROM sqlite_master WHERE type = 'table' AND name NOT LIKE 'sqlite_%' ORDER BY name");
}

std::vector<ColumnInfo> RawDatabase::TableInfo(const std::string& table)
{
    std::vector<ColumnInfo> columns;
    sqlite3_stmt* statement = nullptr;
    std::string sql = "PRAGMA table_info(\"" + table + "\")";
    if (sqlite3_prepare_v2(m_db, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
        throw std::runtime_error(std::string("cannot prepare: ") + sqlite3_errmsg(m_db));
    }
    while (sqlite3_step(statement) == SQLITE_ROW) {
        ColumnInfo column;
        column.name = reinterpret_cast<const char*>(sqlite3_column_text(statement, 1));
        column.type = reinterpret_cast<const char*>(sqlite3_column_text(statement, 2));
        column.hasDefault = sqlite3_column_type(statement, 4) != SQLITE_NULL;
        if (column.hasDefault) {
            column.defaultValue = reinterpret_cast<const char*>(sqlite3_column_text(statement, 4));
        }
        column.primaryKey = sqlite3_column_int(statement, 5) != 0;
        columns.push_back(column);
    }
    sqlite3_finalize(statement);
    return columns;
}

std::string RawDatabase::Dump(const std::vector<std::string>& tables)
{
    std::string dump;
    for (const std::string& table : tables) {
        std::string columns;
        for (const ColumnInfo& column : TableInfo(table)) {
            columns += (columns.empty() ? "quote(\"" : " || ',' || quote(\"") + column.name + "\")";
        }
        for (const std::string& row : Column("SELECT " + columns + " FROM \"" + table + "\" ORDER BY 1")) {
            dump += table + ":" + row + "\n";
        }
    }
    return dump;
}

bool FileExists(const std::string& path)
{
    return access(path.c_str(), F_OK) == 0;
}

void WriteFile(const std::string& path, const std::string& content)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

std::string RandomBytes(size_t count, unsigned seed)
{
    std::mt19937 generator(seed);
    std::string bytes(count, '\0');
    for (char& c : bytes) {
        c = static_cast<char>(generator() & 0xFF);
    }
    return bytes;
}

std::string MethodCallBytes(const char* path, const char* interfaceName, const char* method, GVariant* body,
                            guint32 serial)
{
    GDBusMessage* message = g_dbus_message_new_method_call(nullptr, path, interfaceName, method);
    g_dbus_message_set_body(message, body);
    g_dbus_message_set_serial(message, serial);
    gsize size = 0;
    guchar* blob = g_dbus_message_to_blob(message, &size, G_DBUS_CAPABILITY_FLAGS_NONE, nullptr);
    std::string bytes(reinterpret_cast<char*>(blob), size);
    g_free(blob);
    g_object_unref(message);
    return bytes;
}

std::string BinaryRow(const std::vector<std::pair<std::string, std::string>>& entries)
{
    std::string row("TVB\x01", 4);
    auto u32 = [&row](size_t value) {
        for (int i = 0; i < 4; ++i) {
            row.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
        }
    };
    u32(entries.size());
    for (const auto& entry : entries) {
        u32(entry.first.size());
        row += entry.first;
        u32(entry.second.size());
        row += entry.second;
    }
    return row;
}

void TruncateFile(const std::string& path, size_t size)
{
    std::filesystem::resize_file(path, size);
}

size_t FileSize(const std::string& path)
{
    return static_cast<size_t>(std::filesystem::file_size(path));
}

std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        lines.push_back(line);
    }
    return lines;
}

std::vector<host::LogLine> LinesContaining(const std::string& tag, const std::string& text)
{
    std::vector<host::LogLine> found;
    for (const host::LogLine& line : host::CapturedLog()) {
        if ((tag.empty() || line.tag == tag) && line.message.find(text) != std::string::npos) {
            found.push_back(line);
        }
    }
    return found;
}

int CountLines(const std::string& tag, const std::string& text)
{
    return static_cast<int>(LinesContaining(tag, text).size());
}

int IndexOfLine(const std::string& text)
{
    std::vector<host::LogLine> lines = host::CapturedLog();
    for (size_t i = 0; i < lines.size(); ++i) {
        if (lines[i].message.find(text) != std::string::npos) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

int CountExactLines(const std::string& tag, const std::string& text)
{
    int count = 0;
    for (const host::LogLine& line : host::CapturedLog()) {
        if ((tag.empty() || line.tag == tag) && line.message == text) {
            ++count;
        }
    }
    return count;
}

int IndexOfExactLine(const std::string& text)
{
    std::vector<host::LogLine> lines = host::CapturedLog();
    for (size_t i = 0; i < lines.size(); ++i) {
        if (lines[i].message == text) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

void UseDevelopmentIdentities(const std::string& root)
{
    const std::string directory = root + "/etc";
    const std::string path = directory + "/tilvane.conf";
    std::filesystem::create_directories(directory);
    std::ifstream in(path);
    std::stringstream existing;
    existing << in.rdbuf();
    if (existing.str().find("[identity]") != std::string::npos) {
        return;
    }
    std::ofstream out(path, std::ios::app);
    out << "\n[identity]\nmode = development\n";
}

PlatformSandbox::PlatformSandbox()
{
    host::Reset();
    UseDevelopmentIdentities(m_root.Path());
    host::SetPlatformRoot(m_root.Path());
    host::StartLogCapture();
}

PlatformSandbox::~PlatformSandbox()
{
    host::Reset();
}

std::string PlatformSandbox::DatabaseDirectory() const
{
    return std::string(tzplatform_getenv(TZ_SYS_DB)) + "/";
}

/* ---- message bus ----------------------------------------------------------- */

PrivateBus::PrivateBus() : PrivateBus(std::vector<std::string>{"--config-file=" + DefaultConfigFile()})
{
}

PrivateBus::PrivateBus(const std::vector<std::string>& daemonOptions)
    : m_options(daemonOptions), m_pid(-1), m_hadAddress(false)
{
    const char* previous = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    m_hadAddress = previous != nullptr;
    m_previousAddress = previous != nullptr ? previous : "";
    if (Start()) {
        setenv("DBUS_SESSION_BUS_ADDRESS", m_address.c_str(), 1);
    }
}

std::string PrivateBus::DefaultConfigFile()
{
    return TILVANE_TEST_BUS_CONFIG;
}

bool PrivateBus::Start()
{
    int fds[2];
    if (pipe(fds) != 0) {
        return false;
    }
    /* Everything the child needs is prepared before fork: it only execs. */
    std::vector<std::string> args = {"dbus-daemon"};
    args.insert(args.end(), m_options.begin(), m_options.end());
    args.push_back("--nofork");
    args.push_back("--nopidfile");
    args.push_back("--print-address=" + std::to_string(fds[1]));
    std::vector<char*> argv;
    for (std::string& arg : args) {
        argv.push_back(&arg[0]);
    }
    argv.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    close(fds[1]);
    if (pid < 0) {
        close(fds[0]);
        return false;
    }
    m_pid = pid;
    std::string address;
    char c = 0;
    while (read(fds[0], &c, 1) == 1 && c != '\n') {
        address.push_back(c);
    }
    close(fds[0]);
    if (address.empty()) {
        Stop();
        return false;
    }
    /* Without the daemon's guid: a daemon started again at the same address
     * has another, and a client that names the old one cannot connect. */
    m_address = address.substr(0, address.find(",guid="));
    return true;
}

void PrivateBus::Stop()
{
    if (m_pid > 0) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
        m_pid = -1;
    }
}

bool PrivateBus::Restart()
{
    const std::string before = m_address;
    Stop();
    m_address.clear();
    return Start() && m_address == before;
}

PrivateBus::~PrivateBus()
{
    if (m_pid > 0) {
        kill(m_pid, SIGTERM);
        waitpid(m_pid, nullptr, 0);
    }
    if (m_hadAddress) {
        setenv("DBUS_SESSION_BUS_ADDRESS", m_previousAddress.c_str(), 1);
    } else {
        unsetenv("DBUS_SESSION_BUS_ADDRESS");
    }
}

ChildProcess::ChildProcess(const std::function<int(int readyFd)>& body)
{
    int go[2];
    int ready[2];
    if (pipe(go) != 0) {
        return;
    }
    if (pipe(ready) != 0) {
        close(go[0]);
        close(go[1]);
        return;
    }
    m_pid = fork();
    if (m_pid == 0) {
        close(go[1]);
        close(ready[0]);
        char c = 0;
        if (read(go[0], &c, 1) != 1) {
            _exit(90);
        }
        _exit(body(ready[1]));
    }
    close(go[0]);
    close(ready[1]);
    m_goFd = go[1];
    m_readyFd = ready[0];
}

ChildProcess::~ChildProcess()
{
    if (m_pid > 0 && !m_reaped) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    if (m_goFd >= 0) {
        close(m_goFd);
    }
    if (m_readyFd >= 0) {
        close(m_readyFd);
    }
}

bool ChildProcess::Go() const
{
    char c = 'g';
    return write(m_goFd, &c, 1) == 1;
}

bool ChildProcess::WaitReady() const
{
    char c = 0;
    return read(m_readyFd, &c, 1) == 1;
}

int ChildProcess::Wait(int timeoutMs)
{
    const int64_t deadline = g_get_monotonic_time() + static_cast<int64_t>(timeoutMs) * 1000;
    while (g_get_monotonic_time() < deadline) {
        int status = 0;
        if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
            m_reaped = true;
            return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        g_usleep(10000);
    }
    return -1;
}

void ChildProcess::SignalReady(int readyFd)
{
    char c = 'r';
    if (write(readyFd, &c, 1) != 1) {
        _exit(91);
    }
}

bool IterateMainContextUntil(const std::function<bool()>& done, int timeoutMs)
{
    const int64_t deadline = g_get_monotonic_time() + static_cast<int64_t>(timeoutMs) * 1000;
    while (!done()) {
        if (g_get_monotonic_time() >= deadline) {
            return done();
        }
        /* Wake up now and then: `done` may depend on other threads. */
        GSource* tick = g_timeout_source_new(10);
        g_source_set_callback(tick, [](gpointer) -> gboolean { return G_SOURCE_REMOVE; }, nullptr, nullptr);
        g_source_attach(tick, nullptr);
        g_main_context_iteration(nullptr, TRUE);
        g_source_destroy(tick);
        g_source_unref(tick);
    }
    return true;
}

}  // namespace test
}  // namespace tilvane
