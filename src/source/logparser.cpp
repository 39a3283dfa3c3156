#include "source/logparser.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <QDate>
#include <QTime>

#include <array>
#include <charconv>
#include <stdexcept>
#include <string_view>

namespace tracker
{

namespace
{

// PCRE2 with ECMAScript's meaning for these patterns: "." stops at CR and LF, "^" is the start of the line,
// and \b and case folding know only ASCII (no UTF mode). Unlike libstdc++'s std::regex it neither recurses
// per character (a 30 KB line overflowed the stack) nor needs a rebuild per call.
class Pattern
{
public:
    Pattern(const char *pattern, uint32_t options)
    {
        pcre2_compile_context *context = pcre2_compile_context_create(nullptr);
        pcre2_set_newline(context, PCRE2_NEWLINE_ANYCRLF);
        int error = 0;
        PCRE2_SIZE offset = 0;
        m_code = pcre2_compile(
            reinterpret_cast<PCRE2_SPTR>(pattern), PCRE2_ZERO_TERMINATED, options, &error, &offset, context);
        pcre2_compile_context_free(context);
        if (!m_code)
            throw std::logic_error("invalid built-in pattern");
        // Without JIT (not available on every CPU) the interpreter gives the same results, only slower.
        pcre2_jit_compile(m_code, PCRE2_JIT_COMPLETE);
    }
    ~Pattern() { pcre2_code_free(m_code); }
    Pattern(const Pattern &) = delete;
    Pattern &operator=(const Pattern &) = delete;

    // Searches `text`; on a match `groups` holds the captured groups (index 0 is the whole match).
    bool search(std::string_view text, std::array<std::string_view, 4> &groups) const
    {
        thread_local MatchData data;
        const auto subject = reinterpret_cast<PCRE2_SPTR>(text.data());
        int count = pcre2_match(m_code, subject, text.size(), 0, 0, data.get(), nullptr);
        if (count == PCRE2_ERROR_JIT_STACKLIMIT)
            count = pcre2_match(m_code, subject, text.size(), 0, PCRE2_NO_JIT, data.get(), nullptr);
        // No match, and also a line so pathological that PCRE2's match limit ends the search: such a line
        // is not one of the tracker's event lines.
        if (count <= 0)
            return false;
        const PCRE2_SIZE *ovector = pcre2_get_ovector_pointer(data.get());
        for (int i = 0; i < static_cast<int>(groups.size()); ++i) {
            const PCRE2_SIZE start = ovector[2 * i], end = ovector[2 * i + 1];
            groups[i] = i < count && start != PCRE2_UNSET ? text.substr(start, end - start) : std::string_view();
        }
        return true;
    }

private:
    class MatchData
    {
    public:
        MatchData()
            : m_data(pcre2_match_data_create(4, nullptr))
        {
            if (!m_data)
                throw std::bad_alloc();
        }
        ~MatchData() { pcre2_match_data_free(m_data); }
        MatchData(const MatchData &) = delete;
        MatchData &operator=(const MatchData &) = delete;
        pcre2_match_data *get() const { return m_data; }

    private:
        pcre2_match_data *m_data;
    };

    pcre2_code *m_code = nullptr;
};

struct EventPattern {
    EventKind kind;
    std::string_view phrase; // what must follow "[Info] " for the pattern to have any chance
    const char *pattern;
};

constexpr std::string_view kInfo = "[Info] ";

constexpr std::array<EventPattern, 4> kEventPatterns {{
    {EventKind::TrackingStarted,
        "Tracking started (project id: ", R"re(^\[([^\]]+)\].*\[Info\] Tracking started \(project id: ([0-9]+)\))re"},
    {EventKind::TrackingStopped,
        "Tracking stopped (project id: ", R"re(^\[([^\]]+)\].*\[Info\] Tracking stopped \(project id: ([0-9]+)\))re"},
    {EventKind::DescriptionAdded, "Adding activity description \"",
        R"re(^\[([^\]]+)\].*\[Info\] Adding activity description "(.*)" for project ([0-9]+) to storage)re"},
    {EventKind::ServiceHeartbeat, "Service timeout, updating activity end time (id: ",
        R"re(^\[([^\]]+)\].*\[Info\] Service timeout, updating activity end time \(id: ([0-9]+)\))re"},
}};

const Pattern &eventPattern(size_t index)
{
    static const std::array<Pattern, 4> patterns {{
        {kEventPatterns[0].pattern, 0},
        {kEventPatterns[1].pattern, 0},
        {kEventPatterns[2].pattern, 0},
        {kEventPatterns[3].pattern, 0},
    }};
    return patterns[index];
}

int64_t number(std::string_view digits)
{
    int64_t value = 0;
    const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (result.ec == std::errc::result_out_of_range)
        throw std::out_of_range("number in log line does not fit in 64 bits");
    return value;
}

// Bit k-1 set for every kind whose literal phrase follows an "[Info] " somewhere in the line. A pattern can
// only match where its phrase occurs, so trying just these patterns gives the same result as trying all.
unsigned candidateKinds(std::string_view line)
{
    unsigned kinds = 0;
    if (line.empty() || line.front() != '[')
        return 0;
    for (size_t at = line.find(kInfo, 1); at != std::string_view::npos; at = line.find(kInfo, at + 1)) {
        const std::string_view rest = line.substr(at + kInfo.size());
        for (const EventPattern &p : kEventPatterns) {
            if (rest.starts_with(p.phrase))
                kinds |= 1u << (int(p.kind) - 1);
        }
    }
    return kinds;
}

} // namespace

Event parseEvent(const std::string &line)
{
    Event event;
    const unsigned kinds = candidateKinds(line);
    if (!kinds)
        return event;
    std::array<std::string_view, 4> groups;
    for (size_t i = 0; i < kEventPatterns.size(); ++i) {
        if (!(kinds & (1u << i)) || !eventPattern(i).search(line, groups))
            continue;
        event.kind = int(kEventPatterns[i].kind);
        event.timestamp.assign(groups[1]);
        switch (kEventPatterns[i].kind) {
        case EventKind::TrackingStarted:
        case EventKind::TrackingStopped:
            event.project = number(groups[2]);
            break;
        case EventKind::DescriptionAdded:
            event.description.assign(groups[2]);
            event.project = number(groups[3]);
            break;
        case EventKind::ServiceHeartbeat:
            event.activity = number(groups[2]);
            break;
        case EventKind::None:
            break;
        }
        return event;
    }
    return event;
}

std::string issue(const std::string &text)
{
    // Every key has a hyphen followed by a digit; most descriptions have none.
    bool possible = false;
    for (size_t at = text.find('-'); at != std::string::npos && !possible; at = text.find('-', at + 1))
        possible = at + 1 < text.size() && text[at + 1] >= '0' && text[at + 1] <= '9';
    if (!possible)
        return {};
    static const Pattern key(R"(\b([A-Z][A-Z0-9_]*-[0-9]+)\b)", PCRE2_CASELESS);
    std::array<std::string_view, 4> groups;
    if (!key.search(text, groups))
        return {};
    std::string found(groups[1]);
    for (char &c : found) {
        if (c >= 'a' && c <= 'z')
            c = static_cast<char>(c - 'a' + 'A');
    }
    return found;
}

} // namespace tracker

QDateTime HLEventDate(const QString &text)
{
    // Exactly "yyyy-MM-dd HH:mm:ss.SSS": fixed widths, ASCII digits, nothing before or after.
    static constexpr std::string_view kShape = "0000-00-00 00:00:00.000";
    if (text.size() != static_cast<qsizetype>(kShape.size()))
        return {};
    for (size_t i = 0; i < kShape.size(); ++i) {
        const char16_t c = text.at(static_cast<qsizetype>(i)).unicode();
        if (kShape[i] == '0' ? (c < u'0' || c > u'9') : c != static_cast<char16_t>(kShape[i]))
            return {};
    }
    const auto field = [&](int from, int length) {
        int value = 0;
        for (int i = from; i < from + length; ++i)
            value = value * 10 + (text.at(i).unicode() - u'0');
        return value;
    };
    const QDate date(field(0, 4), field(5, 2), field(8, 2));
    const QTime time(field(11, 2), field(14, 2), field(17, 2), field(20, 3));
    if (!date.isValid() || !time.isValid())
        return {};
    return QDateTime(date, time, Qt::LocalTime);
}
