#pragma once

#include "source/logparser.h"

#include <QByteArray>
#include <QString>

#include <sys/types.h>

#include <string>
#include <vector>

// Reads the tracker's log incrementally from the offset it reached last time. A new, replaced (other inode)
// or truncated log is read again from its last MiB, and what that first read finds counts as history. Appends
// are read in chunks, so a huge append never sits in memory whole; an unterminated line is kept for the next
// read up to one MiB and dropped beyond that. A line that cannot be understood is skipped and counted, never
// read again: the reader can never get stuck on input it has already seen.
class LogReader
{
public:
    struct Entry {
        tracker::Event event;
        bool historical = false;
    };

    struct Result {
        bool available = false; // the log's status could be had at all
        bool reset = false; // this read started over: a new, replaced or truncated log
        std::vector<Entry> events;
        int malformed = 0; // event lines that could not be converted (a number too large, ...)
        std::string malformedReason; // the first such line's failure, without the line's content
    };

    // The most of a log read at a reset, and the longest unterminated line kept.
    static constexpr qint64 kWindow = 1'048'576;
    // The most read from the file at once.
    static constexpr qint64 kChunk = 1'048'576;

    // Reads what was appended since the last call. Throws std::runtime_error("Cannot read Stintwatch log") when
    // the log exists but cannot be read; the offset then stays where it was.
    Result read(const QString &path);

    // Forgets everything: the next read starts over as at a reset.
    void reset();

    qint64 offset() const { return m_offset; }
    // Bytes of an unterminated line held for the next read; never more than kWindow after a read.
    qsizetype bufferedBytes() const { return m_partial.size(); }

private:
    void consume(const char *data, qsizetype size, bool historical, Result &result);
    void parseLine(const char *data, qsizetype size, bool historical, Result &result);

    qint64 m_offset = 0;
    ino_t m_inode = 0;
    QByteArray m_partial;
    bool m_seen = false;
    bool m_skipToNewline = false; // the next bytes belong to a cut or dropped line
};
