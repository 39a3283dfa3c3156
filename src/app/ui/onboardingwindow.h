#pragma once

#include <QDialog>

#include <functional>

class QLabel;
class QPushButton;

// The first-run set-up: welcome, choose the tracker's folder, connect Jira. Finishing (or "Not Now" / "Set Up
// Later") sets "OnboardingCompleted"; closing the window any other way leaves it unset, so it comes back at the
// next start.
class OnboardingWindowController : public QDialog
{
    Q_OBJECT

public:
    explicit OnboardingWindowController(QWidget *parent = nullptr);

    static bool completed();
    static void setCompleted(bool completed);

    // Step 1's text: the default folder (tilde-abbreviated) when it holds the tracker's database or when
    // sandboxed, else the instruction to pick the folder.
    static QString sourceStepText(bool sandboxed, bool defaultFolderValid, const QString &defaultFolder);

    int step() const { return m_step; }
    void setStep(int step);
    bool sourceConnected() const { return m_sourceConnected; }

    // The outcome of a folder choice the delegate made for step 1: `valid` false means the folder has no
    // tracker database; a cancelled choice is not reported.
    void sourceDidChange(bool valid);

    std::function<void()> chooseSourceRequested;
    std::function<void()> connectJiraRequested;
    // Onboarding ended, finished or not.
    std::function<void()> didFinish;

    // Sets "OnboardingCompleted" and closes the window (also when Jira got connected from step 3).
    void finish();

    QPushButton *primaryButton() const { return m_primary; }
    QPushButton *secondaryButton() const { return m_secondary; }
    QString text() const;
    bool writeSnapshot(const QString &path);

protected:
    void closeEvent(QCloseEvent *event) override;
    void reject() override;

private:
    void primary();
    void secondary();
    void render();

    int m_step = 0;
    bool m_sourceConnected = false;
    bool m_finished = false;
    QString m_sourceMessage;
    QLabel *m_stepLine;
    QLabel *m_title;
    QLabel *m_text;
    QLabel *m_status;
    QPushButton *m_primary;
    QPushButton *m_secondary;
};
