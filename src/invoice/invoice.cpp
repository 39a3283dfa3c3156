#include "invoice/invoice.h"

#include "records/invoice.h"

#include <QCollator>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QLocale>
#include <QMutex>
#include <QMutexLocker>
#include <QRegularExpression>
#include <QSet>
#include <QStringList>
#include <QVariantList>

#include "invoice/pdfmodule.h"

#include <QDir>
#include <QLibrary>

#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace
{

const QString kDurationPattern = QStringLiteral(R"(\b(\d{1,4}):([0-5]\d):([0-5]\d)\b)");
const QString kAmountPattern = QStringLiteral(R"(\$\s?([\d,]+\.\d{2}))");
const QString kHeaderPattern
    = QStringLiteral(R"(^(invoice|issue date|due date|date range|issued by|billed to|details|project|member|)"
                     R"(start date|manually|total hours|hourly|amount|page|created with|subtotal|discount|taxes|)"
                     R"(total|activities|activity)\b)");
const QString kPageNumberPattern = QStringLiteral(R"(^\s*\d+\s*(/\s*\d+)?\s*$)");

const QString kNotAFile = QStringLiteral("That is not a regular file, so it cannot be read as a PDF.");
const QString kNotAPDF = QStringLiteral("That file could not be opened as a PDF.");
const QString kNoReader
    = QStringLiteral("PDF files cannot be read: the PDF reader of this installation (hourloom-pdf.so) is missing.");
const QString kNoText = QStringLiteral("The invoice has no text layer. A scanned or image-only PDF cannot be read.");
const QString kNoRows = QStringLiteral("No activity rows were found. The invoice layout may have changed.");
const QString kNoTotal = QStringLiteral("The activity rows do not add up to the invoice total, so the figures cannot "
                                        "be trusted. Nothing was extracted.");

// Compiled patterns shared by every thread, each made once. A pattern that does not compile is none.
const QRegularExpression *Regex(const QString &pattern)
{
    static QMutex mutex;
    static QHash<QString, std::shared_ptr<const QRegularExpression>> cache;
    QMutexLocker locker(&mutex);
    if (const auto found = cache.constFind(pattern); found != cache.constEnd())
        return found->get();
    // Digits and blanks in any script, as a PDF's text layer may hold no-break spaces or other digits.
    auto expression = std::make_shared<QRegularExpression>(pattern, QRegularExpression::UseUnicodePropertiesOption);
    if (!expression->isValid())
        expression.reset();
    else
        expression->optimize(); // compiled now, so that matching from many threads only reads it
    cache.insert(pattern, expression);
    return expression.get();
}

std::optional<QRegularExpressionMatch> FirstMatch(const QString &text, const QString &pattern)
{
    const QRegularExpression *expression = Regex(pattern);
    if (!expression)
        return std::nullopt;
    QRegularExpressionMatch match = expression->match(text);
    if (!match.hasMatch())
        return std::nullopt;
    return match;
}

QVariantMap Failure(const QString &message)
{
    return {{InvoiceKey::kProblem, message}, {InvoiceKey::kRowCount, QVariant::fromValue<qulonglong>(0)},
        {InvoiceKey::kDescriptions, QStringList()}};
}

qint64 digitsValue(QStringView digits)
{
    qint64 value = 0;
    for (const QChar c : digits)
        value = value * 10 + c.digitValue();
    return value;
}

qint64 durationSeconds(const QRegularExpressionMatch &match)
{
    return digitsValue(match.capturedView(1)) * 3600 + digitsValue(match.capturedView(2)) * 60
        + digitsValue(match.capturedView(3));
}

struct Row {
    QString name;
    qint64 seconds = -1;
    double amount = 0;
};

bool isDroppedLine(const QString &line)
{
    if (line.isEmpty() || line.contains(QLatin1Char('@')))
        return true;
    const QRegularExpression *header = Regex(kHeaderPattern);
    const QRegularExpression *pageNumber = Regex(kPageNumberPattern);
    return (header && header->match(line.toLower()).hasMatch()) || (pageNumber && pageNumber->match(line).hasMatch());
}

QString nameFromBlock(const QString &block)
{
    QStringList kept;
    for (const QString &raw : block.split(QLatin1Char('\n'))) {
        const QString line = raw.trimmed();
        if (!isDroppedLine(line))
            kept.append(line);
    }
    QString name = kept.join(QLatin1Char(' ')).trimmed();
    name = invoice::removeTrailingDayMonth(name);
    name = invoice::removeTrailingPercentage(name);
    QString collapsed;
    collapsed.reserve(name.size());
    bool inBlank = false;
    for (const QChar c : std::as_const(name)) {
        if (c.isSpace()) {
            if (!inBlank)
                collapsed.append(QLatin1Char(' '));
            inBlank = true;
        } else {
            collapsed.append(c);
            inBlank = false;
        }
    }
    return collapsed.trimmed();
}

// Whether `text` starts a poppler page break or is empty of anything but blanks.
bool isBlank(const QString &text)
{
    for (const QChar c : text) {
        if (!c.isSpace() && c != QLatin1Char('\f'))
            return false;
    }
    return true;
}

} // namespace

namespace invoice
{

QString removeTrailingDayMonth(const QString &name)
{
    // What "\s*\d{1,2}\s+[A-Z][a-z]{2}\s*$" removes: its leftmost match, found from the end in linear time.
    qsizetype end = name.size();
    while (end > 0 && name.at(end - 1).isSpace())
        --end;
    if (end < 3)
        return name;
    const qsizetype month = end - 3;
    auto lower = [](QChar c) { return c >= QLatin1Char('a') && c <= QLatin1Char('z'); };
    if (!(name.at(month) >= QLatin1Char('A') && name.at(month) <= QLatin1Char('Z')) || !lower(name.at(month + 1))
        || !lower(name.at(month + 2)))
        return name;
    qsizetype gap = month;
    while (gap > 0 && name.at(gap - 1).isSpace())
        --gap;
    if (gap == month)
        return name;
    qsizetype digits = gap;
    while (digits > 0 && name.at(digits - 1).isDigit())
        --digits;
    if (digits == gap)
        return name;
    if (gap - digits > 2)
        return name.left(gap - 2); // only the last two digits belong to the day
    qsizetype start = digits;
    while (start > 0 && name.at(start - 1).isSpace())
        --start;
    return name.left(start);
}

QString removeTrailingPercentage(const QString &name)
{
    // What "\s*\d+\s*%\s*$" removes, found from the end in linear time.
    qsizetype end = name.size();
    while (end > 0 && name.at(end - 1).isSpace())
        --end;
    if (end == 0 || name.at(end - 1) != QLatin1Char('%'))
        return name;
    qsizetype gap = end - 1;
    while (gap > 0 && name.at(gap - 1).isSpace())
        --gap;
    qsizetype digits = gap;
    while (digits > 0 && name.at(digits - 1).isDigit())
        --digits;
    if (digits == gap)
        return name;
    qsizetype start = digits;
    while (start > 0 && name.at(start - 1).isSpace())
        --start;
    return name.left(start);
}

} // namespace invoice

qint64 INVSeconds(const QString &text)
{
    const std::optional<QRegularExpressionMatch> match = FirstMatch(text, kDurationPattern);
    return match ? durationSeconds(*match) : -1;
}

QString INVFormatDuration(qint64 seconds)
{
    return QString::asprintf("%lld:%02lld:%02lld", static_cast<long long>(seconds / 3600),
        static_cast<long long>((seconds % 3600) / 60), static_cast<long long>(seconds % 60));
}

QString INVFormatHoursMinutes(qint64 seconds)
{
    return QString::asprintf(
        "%lldh %lldm", static_cast<long long>(seconds / 3600), static_cast<long long>((seconds % 3600) / 60));
}

namespace
{

QVariantMap parseText(const QString &text, QHash<QString, qint64> *secondsByName)
{
    if (text.isEmpty())
        return Failure(kNoText);
    const QRegularExpression *durationPattern = Regex(kDurationPattern);
    const QRegularExpression *amountPattern = Regex(kAmountPattern);
    if (!durationPattern || !amountPattern)
        return Failure(kNoRows);

    std::vector<QRegularExpressionMatch> durations;
    for (QRegularExpressionMatchIterator it = durationPattern->globalMatch(text); it.hasNext();)
        durations.push_back(it.next());
    if (durations.size() < 2)
        return Failure(kNoRows);

    std::vector<Row> rows;
    rows.reserve(durations.size());
    qsizetype anchor = 0;
    for (size_t index = 0; index < durations.size(); ++index) {
        const QRegularExpressionMatch &duration = durations[index];
        const qsizetype durationEnd = duration.capturedEnd(0);
        const qsizetype next = index + 1 < durations.size() ? durations[index + 1].capturedStart(0) : text.size();

        Row row;
        row.name = nameFromBlock(text.mid(anchor, duration.capturedStart(0) - anchor));
        row.seconds = durationSeconds(duration);
        anchor = durationEnd;
        QRegularExpressionMatch lastAmount;
        for (QRegularExpressionMatchIterator it = amountPattern->globalMatch(text.mid(durationEnd, next - durationEnd));
             it.hasNext();)
            lastAmount = it.next();
        if (lastAmount.hasMatch()) {
            bool ok = false;
            const double amount = lastAmount.captured(1).remove(QLatin1Char(',')).toDouble(&ok);
            row.amount = ok ? amount : 0;
            anchor = durationEnd + lastAmount.capturedEnd(0);
        }
        rows.push_back(std::move(row));
    }

    qint64 sum = 0;
    for (const Row &row : rows)
        sum += row.seconds;
    std::optional<size_t> total;
    for (size_t index = 0; index < rows.size(); ++index) {
        if (rows[index].seconds >= 1 && rows[index].seconds == sum - rows[index].seconds) {
            total = index;
            break;
        }
    }
    if (!total)
        return Failure(kNoTotal);

    QStringList descriptions;
    QSet<QString> seen;
    for (size_t index = 0; index < rows.size(); ++index) {
        const QString &name = rows[index].name;
        if (index == *total || name.isEmpty())
            continue;
        if (secondsByName)
            (*secondsByName)[name] += rows[index].seconds;
        if (seen.contains(name))
            continue;
        seen.insert(name);
        descriptions.append(name);
    }
    // Sorted as a file manager sorts names ("ED-9" before "ED-12"); the C locale's collation would ignore
    // numbers, so it gives way to US English.
    QLocale locale;
    if (locale.language() == QLocale::C)
        locale = QLocale(QLocale::English, QLocale::UnitedStates);
    QCollator collator(locale);
    collator.setNumericMode(true);
    collator.setCaseSensitivity(Qt::CaseInsensitive);
    std::sort(descriptions.begin(), descriptions.end(),
        [&collator](const QString &a, const QString &b) { return collator.compare(a, b) < 0; });

    return {{InvoiceKey::kTotalSeconds, rows[*total].seconds}, {InvoiceKey::kTotalAmount, rows[*total].amount},
        {InvoiceKey::kRowCount, QVariant::fromValue<qulonglong>(rows.size() - 1)},
        {InvoiceKey::kDescriptions, descriptions}};
}

// Where the PDF text module is looked for: where the installed program keeps it relative to its own folder,
// and beside the program (a build tree). Test builds also know the build tree's folder, for test programs that
// live elsewhere in it.
QStringList moduleCandidates()
{
    const QString program = QFileInfo(QStringLiteral("/proc/self/exe")).canonicalFilePath();
    const QString folder = QFileInfo(program).absolutePath();
    QStringList candidates {QDir::cleanPath(folder + u'/' + QStringLiteral(HOURLOOM_MODULE_RELATIVE_DIR)), folder};
#ifdef HOURLOOM_TEST_HOOKS
    candidates.append(QStringLiteral(HOURLOOM_BUILD_MODULE_DIR));
#endif
    for (QString &candidate : candidates)
        candidate += QStringLiteral("/hourloom-pdf.so");
    return candidates;
}

// The module's reader, loaded on first use and kept for the life of the process; null when it is missing.
HourloomPdfText pdfReader()
{
    static HourloomPdfText reader = nullptr;
    static std::once_flag once;
    std::call_once(once, [] {
        for (const QString &candidate : moduleCandidates()) {
            if (!QFileInfo::exists(candidate))
                continue;
            QLibrary module(candidate);
            if (auto *symbol = reinterpret_cast<HourloomPdfText>(module.resolve(kHourloomPdfTextSymbol))) {
                reader = symbol; // the library stays loaded: QLibrary never unloads on destruction
                return;
            }
        }
    });
    return reader;
}

// The document's whole text, or a failure.
QVariantMap pdfText(const QString &path, QString &text)
{
    const QFileInfo info(path);
    // Following a link is fine; a folder, a device or a pipe is not a document (and a pipe would block).
    if (path.isEmpty() || !info.exists() || !info.isFile())
        return Failure(kNotAFile);
    const HourloomPdfText reader = pdfReader();
    if (!reader)
        return Failure(kNoReader);

    const auto addPage = [](void *context, const char *utf8, std::size_t size) {
        QString &whole = *static_cast<QString *>(context);
        const QString page = QString::fromUtf8(utf8, qsizetype(size));
        if (!whole.isEmpty() && !page.isEmpty())
            whole += QLatin1Char('\n');
        whole += page;
    };
    if (reader(QFile::encodeName(path).constData(), addPage, &text) == 0)
        return Failure(kNotAPDF);
    // Image-only pages give blanks and page breaks at most.
    if (isBlank(text))
        text.clear();
    return {};
}

} // namespace

QVariantMap INVParseText(const QString &text)
{
    return parseText(text, nullptr);
}

QVariantMap INVParsePDF(const QString &path)
{
    QString text;
    const QVariantMap failure = pdfText(path, text);
    return failure.isEmpty() ? parseText(text, nullptr) : failure;
}

namespace invoice
{

Reading readPDF(const QString &path)
{
    Reading reading;
    QString text;
    reading.result = pdfText(path, text);
    if (reading.result.isEmpty())
        reading.result = parseText(text, &reading.secondsByDescription);
    if (reading.result.contains(InvoiceKey::kProblem))
        reading.secondsByDescription.clear();
    return reading;
}

} // namespace invoice
