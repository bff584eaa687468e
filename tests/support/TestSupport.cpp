#include "TestSupport.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <random>
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

void TruncateFile(const std::string& path, size_t size)
{
    std::filesystem::resize_file(path, size);
}

size_t FileSize(const std::string& path)
{
    return static_cast<size_t>(std::filesystem::file_size(path));
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

PlatformSandbox::PlatformSandbox()
{
    host::Reset();
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

}  // namespace test
}  // namespace tilvane
