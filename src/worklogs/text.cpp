#include "worklogs/text.h"

#include "records/worklog.h"
#include "worklogs/days.h"

#include <QCryptographicHash>

#include <cmath>

QString JRCommentFromText(const QString &text)
{
    // The tag of the program's former name is still recognised on worklogs it posted.
    for (const QString &separator : {QStringLiteral("\n[Hourloom:"), QStringLiteral("\n[Stintwatch Companion:")}) {
        const qsizetype at = text.lastIndexOf(separator);
        if (at >= 0)
            return text.left(at);
    }
    if (text.startsWith(QStringLiteral("[Hourloom:")) || text.startsWith(QStringLiteral("[Stintwatch Companion:")))
        return QStringLiteral("");
    return text;
}

namespace
{

// Rich-text documents nest a few levels; the limit only keeps a hostile document from exhausting the stack.
constexpr int kMaxTextDepth = 200;

void appendText(const QVariant &node, QString &out, int depth)
{
    if (depth > kMaxTextDepth)
        return;
    switch (node.typeId()) {
    case QMetaType::QString:
        out += node.toString();
        return;
    case QMetaType::QVariantMap: {
        const QVariantMap map = node.toMap();
        const auto text = map.constFind(WorklogKey::kNodeText);
        if (text != map.constEnd() && text->typeId() == QMetaType::QString)
            out += text->toString();
        const auto content = map.constFind(WorklogKey::kNodeContent);
        if (content != map.constEnd())
            appendText(*content, out, depth + 1);
        return;
    }
    case QMetaType::QVariantList: {
        const QVariantList list = node.toList();
        bool first = true;
        for (const QVariant &element : list) {
            if (!first)
                out += u'\n';
            first = false;
            appendText(element, out, depth + 1);
        }
        return;
    }
    case QMetaType::QStringList:
        out += node.toStringList().join(u'\n');
        return;
    default:
        return;
    }
}

} // namespace

QString JRText(const QVariant &node)
{
    QString out;
    appendText(node, out, 0);
    return out;
}

QDateTime JRDate(const QVariant &value)
{
    if (value.typeId() != QMetaType::QString)
        return {};
    qint64 msecs = 0;
    int offset = 0;
    if (!jrinternal::parseJiraDate(value.toString(), msecs, offset))
        return {};
    return QDateTime::fromMSecsSinceEpoch(msecs, Qt::OffsetFromUTC, offset);
}

QString JRISO(const QDateTime &date)
{
    if (!date.isValid())
        return QStringLiteral("");
    const QDateTime local = date.toLocalTime();
    const QDate d = local.date();
    const QTime t = local.time();
    const int offset = local.offsetFromUtc();
    const int absolute = std::abs(offset);
    return QString::asprintf("%04d-%02d-%02dT%02d:%02d:%02d.%03d%c%02d%02d", d.year(), d.month(), d.day(), t.hour(),
        t.minute(), t.second(), t.msec(), offset < 0 ? '-' : '+', absolute / 3600, (absolute % 3600) / 60);
}

QString JRHash(const QString &text)
{
    return QString::fromLatin1(QCryptographicHash::hash(text.toUtf8(), QCryptographicHash::Sha256).toHex());
}
