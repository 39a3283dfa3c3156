#include "app/ui/worklogpicker.h"

#include "records/draft.h"

#include <QDialogButtonBox>
#include <QLabel>
#include <QListWidget>
#include <QPushButton>
#include <QVBoxLayout>

namespace
{

QString field(const QVariantMap &candidate, const QString &key)
{
    return candidate.value(key).toString();
}

} // namespace

ManualWorklogPicker::ManualWorklogPicker(
    const QVariantList &candidates, const QString &issue, qint64 sessionSeconds, QWidget *parent)
    : QDialog(parent)
    , m_candidates(candidates)
{
    setWindowTitle(QStringLiteral("Mark as already logged in Jira?"));
    setModal(true);
    auto *layout = new QVBoxLayout(this);
    auto *title = new QLabel(QStringLiteral("<b>Mark as already logged in Jira?</b>"), this);
    layout->addWidget(title);
    auto *text = new QLabel(QStringLiteral("Issue: %1 · Session: %2 seconds. These are your worklogs on this issue and "
                                           "local date. Confirm that the selected worklog covers this session. One "
                                           "worklog may cover several sessions. Nothing in Jira will be changed.")
                                .arg(issue)
                                .arg(sessionSeconds),
        this);
    text->setWordWrap(true);
    layout->addWidget(text);

    m_list = new QListWidget(this);
    m_list->setAccessibleName(QStringLiteral("Worklogs"));
    for (const QVariant &item : candidates) {
        const QVariantMap candidate = item.toMap();
        m_list->addItem(QStringLiteral("Worklog %1 · %2 s · %3")
                            .arg(field(candidate, ManualMatchKey::kId), field(candidate, ManualMatchKey::kSeconds),
                                field(candidate, ManualMatchKey::kStarted)));
    }
    layout->addWidget(m_list);
    m_detail = new QLabel(this);
    m_detail->setWordWrap(true);
    m_detail->setTextInteractionFlags(Qt::TextSelectableByMouse);
    layout->addWidget(m_detail);

    auto *buttons = new QDialogButtonBox(this);
    QPushButton *confirm = buttons->addButton(QStringLiteral("Confirm match"), QDialogButtonBox::AcceptRole);
    buttons->addButton(QStringLiteral("Cancel"), QDialogButtonBox::RejectRole);
    confirm->setDefault(true);
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    layout->addWidget(buttons);
    connect(m_list, &QListWidget::currentRowChanged, this, [this, confirm](int row) {
        confirm->setEnabled(row >= 0);
        showDetail();
    });
    if (!candidates.isEmpty())
        m_list->setCurrentRow(0);
    confirm->setEnabled(m_list->currentRow() >= 0);
    m_list->setFocus();
}

void ManualWorklogPicker::showDetail()
{
    const QVariantMap candidate = chosen();
    if (candidate.isEmpty()) {
        m_detail->clear();
        return;
    }
    m_detail->setText(QStringLiteral("%1\nStarted: %2\nDuration: %3 seconds\n\n%4")
                          .arg(field(candidate, ManualMatchKey::kReason), field(candidate, ManualMatchKey::kStarted),
                              field(candidate, ManualMatchKey::kSeconds), field(candidate, ManualMatchKey::kComment)));
}

QString ManualWorklogPicker::detailText() const
{
    return m_detail->text();
}

QVariantMap ManualWorklogPicker::chosen() const
{
    return m_candidates.value(m_list->currentRow()).toMap();
}

QVariantMap ManualWorklogPicker::chooseMatch(
    const QVariantList &candidates, const QString &issue, qint64 sessionSeconds, QWidget *parent)
{
    ManualWorklogPicker picker(candidates, issue, sessionSeconds, parent);
    if (picker.exec() != QDialog::Accepted)
        return {};
    return picker.chosen();
}
