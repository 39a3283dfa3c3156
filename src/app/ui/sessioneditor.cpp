#include "app/ui/sessioneditor.h"

#include "app/ui/rowkeys.h"
#include "records/session.h"
#include "worklogs/issueassignments.h"

#include <QCheckBox>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QRadioButton>
#include <QVBoxLayout>

SessionEditor::SessionEditor(const QVariantMap &session, const QString &siteURL, bool commentOnly, QWidget *parent)
    : QDialog(parent)
    , m_siteURL(siteURL)
    , m_commentOnly(commentOnly)
{
    setWindowTitle(commentOnly ? QStringLiteral("Edit Worklog Comment") : QStringLiteral("Assign Jira Issue"));
    setModal(true);
    auto *layout = new QVBoxLayout(this);
    auto *text = new QLabel(QStringLiteral("%1\nChanges are saved locally. Nothing is posted to Jira.")
                                .arg(session.value(SessionKey::kDescription).toString()),
        this);
    text->setWordWrap(true);
    layout->addWidget(text);

    auto *form = new QFormLayout;
    m_issue = new QLineEdit(this);
    m_issue->setPlaceholderText(QStringLiteral("DEMO-42"));
    m_issue->setAccessibleName(QStringLiteral("Jira issue key or URL"));
    const QString issue = session.value(SessionKey::kIssue).toString();
    if (issue != SessionKey::kUnassigned)
        m_issue->setText(issue);
    m_issue->setEnabled(!commentOnly);
    form->addRow(QStringLiteral("Jira issue key or URL"), m_issue);
    m_comment = new QLineEdit(session.value(SessionKey::kComment).toString(), this);
    m_comment->setAccessibleName(QStringLiteral("Worklog comment (this session only)"));
    form->addRow(QStringLiteral("Worklog comment (this session only)"), m_comment);
    layout->addLayout(form);

    m_single = new QRadioButton(QStringLiteral("This session only"), this);
    m_all = new QRadioButton(QStringLiteral("All sessions with this description"), this);
    m_single->setChecked(true);
    m_all->setEnabled(!commentOnly);
    m_combine = new QCheckBox(QStringLiteral("Combine matching sessions into one daily worklog"), this);
    m_combine->setEnabled(false);
    layout->addWidget(m_single);
    layout->addWidget(m_all);
    layout->addWidget(m_combine);
    connect(m_single, &QRadioButton::toggled, this, [this] { selectScope(); });
    connect(m_all, &QRadioButton::toggled, this, [this] { selectScope(); });

    m_error = new QLabel(this);
    m_error->setWordWrap(true);
    m_error->setStyleSheet(QStringLiteral("color: palette(link)"));
    m_error->hide();
    layout->addWidget(m_error);

    auto *buttons = new QDialogButtonBox(this);
    QPushButton *saveButton = buttons->addButton(QStringLiteral("Save"), QDialogButtonBox::AcceptRole);
    buttons->addButton(QStringLiteral("Cancel"), QDialogButtonBox::RejectRole);
    saveButton->setDefault(true);
    connect(buttons, &QDialogButtonBox::accepted, this, &SessionEditor::save);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    layout->addWidget(buttons);
    (commentOnly ? m_comment : m_issue)->setFocus();
}

void SessionEditor::selectScope()
{
    m_combine->setEnabled(m_all->isChecked());
    if (!m_all->isChecked())
        m_combine->setChecked(false);
}

QString SessionEditor::refusal() const
{
    return m_error->isVisible() || !m_error->text().isEmpty() ? m_error->text() : QString();
}

void SessionEditor::save()
{
    QString issue;
    if (!m_commentOnly) {
        const QString input = m_issue->text().trimmed();
        if (!input.isEmpty()) {
            issue = IssueAssignments::issueFromInput(input, m_siteURL);
            if (issue.isNull()) {
                m_error->setText(QStringLiteral(
                    "Enter a valid Jira key or an HTTPS /browse/issue URL belonging to the selected Jira site."));
                m_error->show();
                m_issue->setFocus();
                return;
            }
        } else {
            issue = QStringLiteral("");
        }
    }
    m_result = {{SessionEditKey::kIssue, issue}, {SessionEditKey::kComment, m_comment->text()},
        {SessionEditKey::kScope, m_all->isChecked() ? SessionEditKey::kAllSessions : SessionEditKey::kThisSession},
        {SessionEditKey::kAggregateDaily, m_all->isChecked() && m_combine->isChecked()}};
    accept();
}

QVariantMap SessionEditor::edit(const QVariantMap &session, const QString &siteURL, bool commentOnly, QWidget *parent)
{
    SessionEditor editor(session, siteURL, commentOnly, parent);
    if (editor.exec() != QDialog::Accepted)
        return {};
    return editor.result();
}
