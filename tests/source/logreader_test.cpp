#include "source/logreader.h"

#include "support/testenv.h"

#include <QByteArray>
#include <QFile>

#include <gtest/gtest.h>

#include <unistd.h>

#include <random>
#include <set>

namespace
{

// Drives the log reader over a real file that is appended to, truncated and rotated at random, the way a
// tracker and log rotation treat it, with lines of every kind in between: events, numbers too large for 64
// bits, noise, unterminated and overlong lines, raw bytes. After every step a fresh marker line must be read
// (capture always resumes), no marker twice unless a reset reads it again as history, nothing at all from a
// read with nothing new (no input is ever read twice), and the reader never holds more than its one-MiB
// buffer.
class LogReaderFuzz
{
public:
    LogReaderFuzz(unsigned seed, const QString &folder)
        : m_random(seed)
        , m_path(folder + QStringLiteral("/application.log"))
        , m_spare(folder + QStringLiteral("/application.log.new"))
    {
        write(m_path, {}, QIODevice::WriteOnly);
    }

    void run(int steps)
    {
        for (int step = 0; step < steps && !::testing::Test::HasFailure(); ++step) {
            switch (pick(10)) {
            case 0:
                truncate();
                read(step);
                break;
            case 1:
                rotate();
                read(step);
                break;
            default:
                append(randomContent());
                if (pick(3) == 0)
                    read(step);
                break;
            }
            if (pick(4) == 0)
                resumes(step);
        }
        resumes(steps);
    }

private:
    int pick(int below) { return std::uniform_int_distribution<int>(0, below - 1)(m_random); }

    QByteArray randomContent()
    {
        QByteArray out;
        const int pieces = 1 + pick(20);
        for (int i = 0; i < pieces; ++i) {
            switch (pick(8)) {
            case 0:
                out += "[2026-03-29 14:05:09.123] [1a2c] [Info] Tracking started (project id: 99999999999999999999)\n";
                break;
            case 1:
                out += "[2026-03-29 14:05:09.123] [1a2c] [Info] Service timeout, updating activity end time (id: "
                    + QByteArray::number(pick(1000)) + ")\n";
                break;
            case 2:
                out += "[2026-03-29 14:05:10.000] [1a2c] [Debug] Sync queue drained (0 pending)\n";
                break;
            case 3: { // raw bytes, newlines included
                QByteArray bytes(1 + pick(200), '\0');
                for (char &c : bytes)
                    c = char(pick(256));
                out += bytes;
                break;
            }
            case 4: // an unterminated tail
                out += "[2026-03-29 14:05:11.000] [1a2c] [Info] Tracking sto";
                break;
            case 5:
                if (pick(6) == 0) // an overlong line, past the buffer and across read chunks
                    out += QByteArray(LogReader::kWindow + pick(int(LogReader::kWindow)), 'x');
                break;
            default:
                out += "[2026-03-29 14:05:12.000] [1a2c] [Info] Adding activity description \"ENG-1 \" x\" for "
                       "project 7 to storage\n";
                break;
            }
        }
        return out;
    }

    void append(const QByteArray &bytes)
    {
        write(m_path, bytes, QIODevice::Append);
        m_changed = true;
    }

    void truncate()
    {
        const qint64 size = QFile(m_path).size();
        ASSERT_TRUE(QFile::resize(m_path, size > 0 ? pick(int(std::min<qint64>(size, INT_MAX))) : 0));
        m_changed = true;
    }

    // A new file (another inode) takes the log's place, sometimes starting with the old one's last bytes.
    void rotate()
    {
        QFile old(m_path);
        ASSERT_TRUE(old.open(QIODevice::ReadOnly));
        const QByteArray tail = pick(2) ? old.readAll().right(pick(4096)) : QByteArray();
        old.close();
        write(m_spare, tail + randomContent(), QIODevice::WriteOnly);
        ASSERT_EQ(::rename(QFile::encodeName(m_spare).constData(), QFile::encodeName(m_path).constData()), 0);
        m_changed = true;
    }

    void write(const QString &path, const QByteArray &bytes, QIODevice::OpenMode mode)
    {
        QFile file(path);
        ASSERT_TRUE(file.open(mode));
        ASSERT_EQ(file.write(bytes), bytes.size());
    }

    void read(int step)
    {
        LogReader::Result result;
        ASSERT_NO_THROW(result = m_reader.read(m_path)) << "step " << step;
        ASSERT_TRUE(result.available);
        ASSERT_LE(m_reader.bufferedBytes(), LogReader::kWindow) << "step " << step;
        if (!m_changed) {
            EXPECT_TRUE(result.events.empty() && result.malformed == 0) << "input read twice, step " << step;
        }
        m_changed = false;
        for (const LogReader::Entry &entry : result.events) {
            EXPECT_EQ(entry.historical, result.reset);
            if (entry.event.kind == 2 && entry.event.project >= kMarkerBase) {
                // A reset may read a marker again as history; live, each is read once.
                const bool first = m_markersSeen.insert(entry.event.project).second;
                ASSERT_TRUE(first || entry.historical)
                    << "marker " << entry.event.project << " read twice, step " << step;
            }
        }
    }

    // A complete line written now is read by the next read, whatever came before.
    void resumes(int step)
    {
        const int64_t marker = kMarkerBase + m_markers++;
        append("\n[2026-03-29 14:06:00.000] [1a2c] [Info] Tracking stopped (project id: " + QByteArray::number(marker)
            + ")\n");
        read(step);
        EXPECT_TRUE(m_markersSeen.count(marker)) << "capture did not resume after step " << step;
        // Read again with nothing new: nothing comes.
        read(step);
    }

    static constexpr int64_t kMarkerBase = 1'000'000'000;

    std::mt19937 m_random;
    QString m_path, m_spare;
    LogReader m_reader;
    int64_t m_markers = 0;
    std::set<int64_t> m_markersSeen;
    bool m_changed = true; // the file changed since the last read
};

class LogReaderFuzzTest : public ::testing::TestWithParam<unsigned>
{
};

TEST_P(LogReaderFuzzTest, CaptureAlwaysResumesWithinTheBuffer)
{
    LogReaderFuzz fuzz(GetParam(), testenv::freshDir(QStringLiteral("fuzz%1").arg(GetParam())));
    fuzz.run(150);
}

INSTANTIATE_TEST_SUITE_P(Seeds, LogReaderFuzzTest, ::testing::Values(1u, 2u, 3u, 20261123u));

// The reader's own guarantees, one by one: a bad line is skipped once with the parser's reason and the lines
// after it are read; an append larger than a read chunk is read whole; a missing log is "not available".
TEST(LogReaderTest, SkipsABadLineOnceAndReadsLargeAppendsInChunks)
{
    const QString path = testenv::freshDir(QStringLiteral("reader")) + QStringLiteral("/application.log");
    LogReader reader;
    EXPECT_FALSE(reader.read(path).available);

    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("[2026-03-29 14:05:09.123] [1a2c] [Info] Tracking started (project id: 1)\n");
    file.flush();
    ASSERT_EQ(reader.read(path).events.size(), 1u);

    file.write("[2026-03-29 14:05:09.123] [1a2c] [Info] Tracking started (project id: 99999999999999999999)\n");
    file.write(QByteArray(3 * LogReader::kChunk / 2, 'n') + '\n');
    file.write("[2026-03-29 14:05:09.123] [1a2c] [Info] Tracking stopped (project id: 2)\n");
    file.flush();
    LogReader::Result result = reader.read(path);
    EXPECT_EQ(result.malformed, 1);
    EXPECT_EQ(result.malformedReason, "number in log line does not fit in 64 bits");
    ASSERT_EQ(result.events.size(), 1u);
    EXPECT_EQ(result.events[0].event.project, 2);
    EXPECT_FALSE(result.events[0].historical);
    EXPECT_EQ(reader.offset(), file.size());

    result = reader.read(path);
    EXPECT_EQ(result.malformed, 0);
    EXPECT_TRUE(result.events.empty());
}

} // namespace
