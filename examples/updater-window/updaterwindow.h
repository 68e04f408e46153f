// SPDX-License-Identifier: MIT
#pragma once

#include "speedmeter.h"
#include "updater.h"
#include "wording.h"

#include <QElapsedTimer>
#include <QPointer>
#include <QStringList>
#include <QWidget>

class QBoxLayout;
class QLabel;
class QLineEdit;
class QListWidget;
class QMessageBox;
class QProgressBar;
class QPushButton;
class QTabWidget;

/// Shows what an Updater does, and lets a player start and stop it.
class UpdaterWindow : public QWidget
{
    Q_OBJECT

public:
    explicit UpdaterWindow(Updater &updater, QWidget *parent = nullptr);

    void setBuild(const QString &folder);
    void setPatch(const QString &folderOrArchive);

protected:
    /// While a job runs the window asks before it stops it, and stays until it has ended.
    void closeEvent(QCloseEvent *event) override;
    /// Enter is the button that comes next, Escape is Cancel.
    void keyPressEvent(QKeyEvent *event) override;

private:
    QWidget *updatePage();
    QWidget *repairPage();
    QWidget *statusArea();
    QBoxLayout *buttonRow(const QList<QPushButton *> &buttons);
    QLineEdit *pathEdit(const char *name, const QString &accessibleName);
    QPushButton *button(const char *name, const QString &text, void (UpdaterWindow::*clicked)());
    QPushButton *folderButton(const char *name, const QString &text, QLineEdit *edit);
    void listen();

    void startCheck();
    void startUpdate();
    void startVerify();
    void startRepair();
    void stop();
    void chooseArchive();

    void showStage(Updater::Stage stage);
    void showProgress(qint64 done, qint64 total);
    void showProblem(const Pellox::UpdateProblem &problem);
    void showPlan(const Pellox::UpdatePlan &plan);
    void showReport(const Pellox::IntegrityReport &report);
    void showResult(Updater::Result result);
    void say(const Words &words);
    void addLine(Mark mark, const QString &text);
    void clearLines();
    void refresh();
    void askBeforeClosing();
    QPushButton *nextButton() const;

    Updater &m_updater;
    SpeedMeter m_speed;
    QElapsedTimer m_clock;
    QStringList m_advice; ///< one for each kind of problem
    bool m_closesAtEnd = false;
    QPointer<QMessageBox> m_question;

    QLineEdit *m_build = nullptr;
    QPushButton *m_chooseBuild = nullptr;
    QTabWidget *m_pages = nullptr;
    QLineEdit *m_patch = nullptr;
    QPushButton *m_check = nullptr;
    QPushButton *m_update = nullptr;
    QLineEdit *m_signatures = nullptr;
    QLineEdit *m_source = nullptr;
    QPushButton *m_verify = nullptr;
    QPushButton *m_repair = nullptr;
    QLabel *m_mark = nullptr;
    QLabel *m_headline = nullptr;
    QLabel *m_detail = nullptr;
    QProgressBar *m_bar = nullptr;
    QLabel *m_figures = nullptr;
    QPushButton *m_cancel = nullptr;
    QListWidget *m_lines = nullptr;
};
