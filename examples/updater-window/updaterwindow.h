// SPDX-License-Identifier: MIT
#pragma once

#include "speedmeter.h"
#include "updater.h"

#include <QElapsedTimer>
#include <QFormLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QPushButton>

#include <functional>

/// Shows what an Updater does, and lets a player start and stop it.
class UpdaterWindow : public QWidget
{
    Q_OBJECT

public:
    explicit UpdaterWindow(Updater &updater, QWidget *parent = nullptr);

    void setBuild(const QString &folder) { m_build->setText(folder); }
    void setPatch(const QString &folderOrArchive) { m_patch->setText(folderOrArchive); }

protected:
    /// While a job runs the window asks before it stops it, and stays until it has ended.
    void closeEvent(QCloseEvent *event) override;

private:
    void fillForm();
    QLayout *addPath(
        QLineEdit *edit, const QString &name, const QString &label, const QString &what);
    void choosePath(QLineEdit *edit, bool isArchive);
    QPushButton *addButton(QLayout *row, const QString &name, const QString &text,
        const std::function<void()> &action);
    QLayout *jobButtons();
    QLayout *statusArea();
    void listen();
    void stop();

    void showBusy(bool isBusy);
    void showUnpacking(int percent);
    void showPhase(Updater::Phase phase);
    void showProgress(qint64 done, qint64 total);
    void showProblem(const Pellox::UpdateProblem &problem);
    void showPlan(const Pellox::UpdatePlan &plan);
    void showReport(const Pellox::IntegrityReport &report);
    void showResult(Updater::Result result);
    void say(const QString &headline, const QString &detail);
    void sayAtEnd(const QString &headline, const QString &detail);
    void addLines(const QString &what, const QStringList &paths);
    void refresh();

    Updater &m_updater;
    SpeedMeter m_speed;
    QElapsedTimer m_clock;
    QStringList m_advice; ///< one for each kind of problem
    bool m_closesAtEnd = false;

    QWidget *const m_fields = new QWidget;
    QFormLayout *const m_form = new QFormLayout(m_fields);
    QLineEdit *const m_build = new QLineEdit;
    QLineEdit *const m_patch = new QLineEdit;
    QLineEdit *const m_signatures = new QLineEdit;
    QLineEdit *const m_source = new QLineEdit;
    QPushButton *m_check = nullptr;
    QPushButton *m_update = nullptr;
    QPushButton *m_verify = nullptr;
    QPushButton *m_repair = nullptr;
    QPushButton *m_cancel = nullptr;
    QLabel *const m_headline = new QLabel;
    QLabel *const m_detail = new QLabel;
    QProgressBar *const m_bar = new QProgressBar;
    QPlainTextEdit *const m_lines = new QPlainTextEdit;
    QMessageBox *const m_question = new QMessageBox(QMessageBox::Question, tr("Close"),
        tr("Stop and close? The game stays as it is."), QMessageBox::Yes | QMessageBox::No, this);
};
