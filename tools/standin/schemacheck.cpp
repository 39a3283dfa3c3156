#include "schemacheck.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QTemporaryFile>

namespace standin
{

QString checkWorklogRequestBodies(const QList<QByteArray> &bodies)
{
    if (bodies.isEmpty())
        return QStringLiteral("no request bodies to check");
    QJsonArray array;
    for (const QByteArray &body : bodies) {
        QJsonParseError error;
        const QJsonDocument document = QJsonDocument::fromJson(body, &error);
        if (error.error != QJsonParseError::NoError)
            return QStringLiteral("a body is not JSON: ") + error.errorString();
        array.append(document.isObject() ? QJsonValue(document.object()) : QJsonValue(document.array()));
    }
    QTemporaryFile file;
    if (!file.open() || file.write(QJsonDocument(array).toJson()) < 0 || !file.flush())
        return QStringLiteral("could not write the bodies to a temporary file");

    QProcess process;
    process.start(QStringLiteral(HOURLOOM_STANDIN_PYTHON),
        {QStringLiteral(HOURLOOM_STANDIN_SCHEMA_SCRIPT), QStringLiteral("requests"), QStringLiteral("--schemas"),
            QStringLiteral(HOURLOOM_STANDIN_SCHEMA_FILE), file.fileName()});
    if (!process.waitForFinished(60000))
        return QStringLiteral("the schema check did not finish: ") + process.errorString();
    if (process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0) {
        return QStringLiteral("schema check failed (exit %1): %2")
            .arg(process.exitCode())
            .arg(QString::fromUtf8(process.readAllStandardError()).trimmed());
    }
    return {};
}

QList<QByteArray> worklogRequestBodies(const Server &server)
{
    QList<QByteArray> bodies;
    for (const ReceivedRequest &request :
        server.requests(QStringLiteral("POST"), QStringLiteral("^/ex/jira/[^/]+/rest/api/3/issue/[^/]+/worklog$")))
        bodies.append(request.body);
    return bodies;
}

} // namespace standin
