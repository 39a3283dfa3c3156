#include "source/logreader.h"

#include <QFile>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <memory>
#include <stdexcept>

namespace
{

struct Descriptor {
    int fd;
    ~Descriptor()
    {
        if (fd >= 0)
            ::close(fd);
    }
};

} // namespace

void LogReader::reset()
{
    m_offset = 0;
    m_inode = 0;
    m_partial.clear();
    m_seen = false;
    m_skipToNewline = false;
}

LogReader::Result LogReader::read(const QString &path)
{
    Result result;
    const QByteArray name = QFile::encodeName(path);
    struct stat status {
    };
    if (::stat(name.constData(), &status) != 0)
        return result;
    result.available = true;

    // The status that decides what to read is the open file's own, so a log replaced in between is not mistaken
    // for the old one.
    const Descriptor file {::open(name.constData(), O_RDONLY | O_CLOEXEC)};
    if (file.fd < 0 || ::fstat(file.fd, &status) != 0)
        throw std::runtime_error("Cannot read Stintwatch log");

    bool historical = false;
    if (!m_seen || status.st_ino != m_inode || status.st_size < m_offset) {
        // A new, replaced or truncated log: only its last MiB is read, and what it says is history.
        m_offset = std::max<qint64>(status.st_size, kWindow) - kWindow;
        m_partial.clear();
        m_inode = status.st_ino;
        m_skipToNewline = m_offset > 0;
        historical = true;
        result.reset = true;
    }

    const std::unique_ptr<char[]> buffer(new char[kChunk]);
    for (;;) {
        const ssize_t got = ::pread(file.fd, buffer.get(), kChunk, m_offset);
        if (got < 0)
            throw std::runtime_error("Cannot read Stintwatch log");
        if (got == 0)
            break;
        consume(buffer.get(), got, historical, result);
        m_offset += got;
    }
    m_seen = true;
    return result;
}

void LogReader::consume(const char *data, qsizetype size, bool historical, Result &result)
{
    const char *end = data + size;
    const char *at = data;
    if (m_skipToNewline) {
        const char *newline = std::find(at, end, '\n');
        if (newline == end)
            return;
        m_skipToNewline = false;
        at = newline + 1;
    }
    for (;;) {
        const char *newline = std::find(at, end, '\n');
        if (newline == end)
            break;
        if (m_partial.isEmpty()) {
            parseLine(at, newline - at, historical, result);
        } else {
            m_partial.append(at, newline - at);
            parseLine(m_partial.constData(), m_partial.size(), historical, result);
            m_partial.clear();
        }
        at = newline + 1;
    }
    m_partial.append(at, end - at);
    if (m_partial.size() > kWindow) {
        // A line this long is not the tracker's; it is dropped up to its end so reading never stalls.
        m_partial.clear();
        m_partial.squeeze();
        m_skipToNewline = true;
    }
}

void LogReader::parseLine(const char *data, qsizetype size, bool historical, Result &result)
{
    tracker::Event event;
    try {
        event = tracker::parseEvent(std::string(data, size_t(size)));
    } catch (const std::exception &failure) {
        if (result.malformed++ == 0)
            result.malformedReason = failure.what();
        return;
    }
    if (event.kind != 0)
        result.events.push_back({std::move(event), historical});
}
