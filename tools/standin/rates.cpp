#include "serverstate.h"

#include "jiraformat.h"

#include <QCryptographicHash>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QUrl>
#include <QUrlQuery>

#include <algorithm>
#include <cmath>

// The exchange-rate service: ECB reference rates by currency pair.
namespace standin
{

const QStringList &Server::State::currencies()
{
    // Currencies of the ECB reference rates: a code outside this list is "invalid", one inside it without a
    // seeded rate is "not found", as the rate service tells the two apart.
    static const QStringList list = QStringLiteral("AUD BGN BRL CAD CHF CNY CZK DKK EUR GBP HKD HUF IDR ILS INR ISK "
                                                   "JPY KRW MXN MYR NOK NZD PHP PLN RON SEK SGD THB TRY USD ZAR")
                                        .split(QLatin1Char(' '));
    return list;
}

void Server::State::seedRates()
{
    QDate date = QDate::currentDate();
    while (date.dayOfWeek() > 5)
        date = date.addDays(-1);
    const QList<QPair<QString, double>> fromEuro = {{QStringLiteral("USD"), 1.1568}, {QStringLiteral("GBP"), 0.8642},
        {QStringLiteral("CHF"), 0.9351}, {QStringLiteral("JPY"), 161.52}, {QStringLiteral("INR"), 98.415},
        {QStringLiteral("SEK"), 11.0475}, {QStringLiteral("PLN"), 4.2705}};
    for (const auto &[quote, value] : fromEuro)
        rates.insert({QStringLiteral("EUR"), quote}, {value, date});
}

std::optional<double> Server::State::lookupRate(const QString &base, const QString &quote, QDate *date) const
{
    if (const auto it = rates.constFind({base, quote}); it != rates.constEnd()) {
        *date = it->date;
        return it->rate;
    }
    if (const auto it = rates.constFind({quote, base}); it != rates.constEnd()) {
        *date = it->date;
        return 1.0 / it->rate;
    }
    const QString euro = QStringLiteral("EUR");
    if (base == euro || quote == euro)
        return std::nullopt;
    QDate first;
    QDate second;
    const std::optional<double> toEuro = lookupRate(base, euro, &first);
    const std::optional<double> fromEuro = lookupRate(euro, quote, &second);
    if (!toEuro || !fromEuro)
        return std::nullopt;
    *date = std::min(first, second);
    return *toEuro * *fromEuro;
}

void Server::State::rate(const httplib::Request &req, httplib::Response &res, const QString &base, const QString &quote)
{
    auto fail = [&](int status, const QString &message) {
        answerJson(res, status, QJsonObject {{QStringLiteral("status"), status}, {QStringLiteral("message"), message}});
    };
    for (const auto &[name, value] : req.params) {
        if (name != "providers") {
            fail(422, QStringLiteral("invalid parameter: ") + fromStd(name));
            return;
        }
        if (fromStd(value).compare(QStringLiteral("ECB"), Qt::CaseInsensitive) != 0) {
            fail(422, QStringLiteral("invalid provider: ") + fromStd(value));
            return;
        }
    }
    const QString from = base.toUpper();
    const QString to = quote.toUpper();
    for (const QString &code : {from, to}) {
        if (!currencies().contains(code)) {
            fail(422, QStringLiteral("invalid currency: ") + code);
            return;
        }
    }
    QDate date;
    std::optional<double> value;
    if (from == to) {
        value = 1.0;
        date = QDate::currentDate();
        while (date.dayOfWeek() > 5)
            date = date.addDays(-1);
    } else {
        value = lookupRate(from, to, &date);
    }
    if (!value) {
        fail(404, QStringLiteral("not found"));
        return;
    }
    answerJson(res, 200,
        QJsonObject {{QStringLiteral("date"), date.toString(Qt::ISODate)}, {QStringLiteral("base"), from},
            {QStringLiteral("quote"), to}, {QStringLiteral("rate"), std::round(*value * 1e5) / 1e5}});
}

} // namespace standin
