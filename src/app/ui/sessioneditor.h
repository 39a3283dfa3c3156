#pragma once

#include <QDialog>
#include <QVariantMap>

class QCheckBox;
class QLabel;
class QLineEdit;
class QRadioButton;

// Assigns an issue to a session or edits its worklog comment. Changes are saved locally only. The result is
// {"issue", "comment", "scope" ("all" or "session"), "aggregate_daily"}, or empty when cancelled.
class SessionEditor : public QDialog
{
    Q_OBJECT
public:
    SessionEditor(const QVariantMap &session, const QString &siteURL, bool commentOnly, QWidget *parent = nullptr);

    static QVariantMap edit(const QVariantMap &session, const QString &siteURL, bool commentOnly, QWidget *parent);

    QVariantMap result() const { return m_result; }
    QLineEdit *issueField() const { return m_issue; }
    QLineEdit *commentField() const { return m_comment; }
    QRadioButton *allSessionsChoice() const { return m_all; }
    QCheckBox *combineChoice() const { return m_combine; }
    QString refusal() const;

    // Validates and, when the input is accepted, closes with the result.
    void save();

private:
    void selectScope();

    QString m_siteURL;
    bool m_commentOnly;
    QLineEdit *m_issue = nullptr;
    QLineEdit *m_comment = nullptr;
    QRadioButton *m_single = nullptr;
    QRadioButton *m_all = nullptr;
    QCheckBox *m_combine = nullptr;
    QLabel *m_error = nullptr;
    QVariantMap m_result;
};
