/*
 * One log line being put together: kept on the stack while it is short (a
 * request's lines are), on the heap once it outgrows that. The log builds
 * every line in one of these instead of in heap strings. Internal to the log
 * room.
 */
#ifndef TILVANE_PLATFORM_LINE_BUFFER_H
#define TILVANE_PLATFORM_LINE_BUFFER_H

#include <cstddef>
#include <cstring>
#include <string>

namespace tilvane {
namespace host {

class LineBuffer {
public:
    LineBuffer() = default;
    LineBuffer(const LineBuffer&) = delete;
    LineBuffer& operator=(const LineBuffer&) = delete;

    void Append(const char* data, size_t size)
    {
        Reserve(size);
        std::memcpy(m_data + m_size, data, size);
        m_size += size;
    }
    void Append(const char* text) { Append(text, std::strlen(text)); }
    void Append(char c)
    {
        Reserve(1);
        m_data[m_size++] = c;
    }

    /* Room for `more` bytes beyond the end (and a terminating NUL); returns
     * where they go. Commit() says how many were written. */
    char* Room(size_t more)
    {
        Reserve(more);
        return m_data + m_size;
    }
    void Commit(size_t written) { m_size += written; }

    const char* data() const { return m_data; }
    size_t size() const { return m_size; }
    bool empty() const { return m_size == 0; }
    char back() const { return m_data[m_size - 1]; }
    void Truncate(size_t size) { m_size = size < m_size ? size : m_size; }
    void Clear() { m_size = 0; }

    /* The text, NUL-terminated. */
    const char* CStr()
    {
        Reserve(0);
        m_data[m_size] = '\0';
        return m_data;
    }

private:
    static constexpr size_t kInline = 1024;

    /* Keeps one byte beyond `more` for the NUL of CStr(). */
    void Reserve(size_t more)
    {
        if (m_size + more < m_capacity) {
            return;
        }
        size_t capacity = m_capacity * 2;
        while (capacity <= m_size + more) {
            capacity *= 2;
        }
        std::string grown(capacity, '\0');
        std::memcpy(&grown[0], m_data, m_size);
        m_heap.swap(grown);
        m_data = &m_heap[0];
        m_capacity = capacity;
    }

    char m_inline[kInline];
    std::string m_heap;
    char* m_data = m_inline;
    size_t m_size = 0;
    size_t m_capacity = kInline;
};

}  // namespace host
}  // namespace tilvane

#endif
