// SPDX-License-Identifier: MIT
#include "updaterwindow.h"

#include <QAccessible>
#include <QCloseEvent>
#include <QDir>
#include <QFileDialog>

using Job = Updater::Job;
using Phase = Updater::Phase;
using Result = Updater::Result;

constexpr int MostLines = 1000; // a release may have many more files

UpdaterWindow::UpdaterWindow(Updater &updater, QWidget *parent)
    : QWidget(parent)
    , m_updater(updater)
{
    setWindowTitle(tr("Update the game"));
    resize(680, 520);
    setMinimumSize(560, 440); // room for the longest advice

    fillForm();
    auto *layout = new QVBoxLayout(this);
    layout->addWidget(m_fields);
    layout->addLayout(jobButtons());
    layout->addLayout(statusArea());
    layout->addWidget(m_lines, 1);
    listen();
    say(tr("Choose the game and the patch"),
        tr("Or verify that the installed files are as they should be."));
    refresh();
}

void UpdaterWindow::fillForm()
{
    m_form->setContentsMargins(0, 0, 0, 0);
    addPath(
        m_build, QStringLiteral("build"), tr("&Game folder:"), tr("Where the game is installed"));
    QLayout *patchRow = addPath(m_patch, QStringLiteral("patch"), tr("&Patch:"),
        tr("The patch, a folder or a .7z archive"));
    addButton(patchRow, QStringLiteral("patchArchive"), tr("&Archive …"),
        [this] { choosePath(m_patch, true); });
    addPath(m_signatures, QStringLiteral("signatures"), tr("&Signatures:"),
        tr("To verify by: the folder with the signatures of the release"));
    addPath(m_source, QStringLiteral("source"), tr("R&ight files:"),
        tr("To repair from: a folder with the files of the release"));
}

/// A row: the path and a button that chooses one.
QLayout *UpdaterWindow::addPath(
    QLineEdit *edit, const QString &name, const QString &label, const QString &what)
{
    edit->setObjectName(name);
    edit->setAccessibleName(what);
    edit->setPlaceholderText(what);
    connect(edit, &QLineEdit::textChanged, this, [this, edit] {
        if (edit == m_build || edit == m_patch)
            m_updater.forget();
        refresh();
    });
    auto *row = new QHBoxLayout;
    row->addWidget(edit);
    addButton(row, name + QLatin1String("Folder"), tr("Folder …"), [this, edit] {
        choosePath(edit, false);
    })->setAccessibleName(tr("Choose: %1").arg(what));
    auto *rowLabel = new QLabel(label);
    rowLabel->setBuddy(edit);
    m_form->addRow(rowLabel, row);
    return row;
}

void UpdaterWindow::choosePath(QLineEdit *edit, bool isArchive)
{
    const QString path = isArchive
        ? QFileDialog::getOpenFileName(this, edit->accessibleName(), edit->text(),
            tr("7z archives (*.7z *.7z.001);;All files (*)"))
        : QFileDialog::getExistingDirectory(this, edit->accessibleName(), edit->text());
    if (!path.isEmpty())
        edit->setText(QDir::toNativeSeparators(path));
}

QPushButton *UpdaterWindow::addButton(
    QLayout *row, const QString &name, const QString &text, const std::function<void()> &action)
{
    auto *button = new QPushButton(text);
    button->setObjectName(name);
    button->setAutoDefault(true); // Enter presses the one that has the focus
    connect(button, &QPushButton::clicked, this, action);
    row->addWidget(button);
    return button;
}

QLayout *UpdaterWindow::jobButtons()
{
    auto *row = new QHBoxLayout;
    row->addStretch();
    m_check = addButton(row, QStringLiteral("check"), tr("&Check"),
        [this] { m_updater.check(m_build->text(), m_patch->text()); });
    m_update
        = addButton(row, QStringLiteral("update"), tr("&Update"), [this] { m_updater.update(); });
    m_verify = addButton(row, QStringLiteral("verify"), tr("&Verify files"),
        [this] { m_updater.verify(m_build->text(), m_signatures->text()); });
    m_repair = addButton(row, QStringLiteral("repair"), tr("&Repair"),
        [this] { m_updater.repair(m_build->text(), m_signatures->text(), m_source->text()); });
    return row;
}

QLayout *UpdaterWindow::statusArea()
{
    m_headline->setObjectName(QStringLiteral("headline"));
    QFont bold = m_headline->font();
    bold.setBold(true);
    m_headline->setFont(bold);
    m_detail->setObjectName(QStringLiteral("detail"));
    m_detail->setTextInteractionFlags(Qt::TextSelectableByMouse);
    m_detail->setWordWrap(true);
    m_bar->setAccessibleName(tr("Progress"));
    m_lines->setObjectName(QStringLiteral("lines"));
    m_lines->setAccessibleName(tr("What was found and done"));
    m_lines->setReadOnly(true);
    m_lines->setMaximumBlockCount(MostLines);

    auto *area = new QVBoxLayout;
    area->addWidget(m_headline);
    area->addWidget(m_detail);
    auto *row = new QHBoxLayout;
    row->addWidget(m_bar);
    m_cancel = addButton(row, QStringLiteral("cancel"), tr("Cancel"), [this] { stop(); });
    m_cancel->setShortcut(Qt::Key_Escape);
    m_cancel->setAutoDefault(false); // a second Enter shall not stop what the first has started
    area->addLayout(row);
    return area;
}

void UpdaterWindow::listen()
{
    connect(m_patch, &QLineEdit::returnPressed, m_check, &QPushButton::click);
    connect(m_signatures, &QLineEdit::returnPressed, m_verify, &QPushButton::click);
    connect(m_source, &QLineEdit::returnPressed, m_repair, &QPushButton::click);
    connect(&m_updater, &Updater::busyChanged, this, &UpdaterWindow::showBusy);
    connect(&m_updater, &Updater::unpacking, this, &UpdaterWindow::showUnpacking);
    connect(&m_updater, &Updater::phaseChanged, this, &UpdaterWindow::showPhase);
    connect(&m_updater, &Updater::progressed, this, &UpdaterWindow::showProgress);
    connect(&m_updater, &Updater::problemFound, this, &UpdaterWindow::showProblem);
    connect(&m_updater, &Updater::fileWritten, this,
        [this](const QString &path) { addLines(tr("Written: %1"), {path}); });
    connect(&m_updater, &Updater::checked, this, &UpdaterWindow::showPlan);
    connect(&m_updater, &Updater::verified, this, &UpdaterWindow::showReport);
    connect(&m_updater, &Updater::finished, this, &UpdaterWindow::showResult);
    connect(m_question->button(QMessageBox::Yes), &QPushButton::clicked, this, [this] {
        m_closesAtEnd = true;
        stop();
    });
}

void UpdaterWindow::stop()
{
    m_updater.cancel();
    m_headline->setText(tr("Stopping …"));
    refresh();
}

void UpdaterWindow::closeEvent(QCloseEvent *event)
{
    if (!m_updater.isBusy())
        return event->accept();
    event->ignore();
    if (m_updater.canCancel())
        m_question->open(); // the job goes on meanwhile
    else
        m_closesAtEnd = true; // files are being put in place, or it stops already
}

void UpdaterWindow::showBusy(bool isBusy)
{
    refresh();
    if (isBusy) {
        m_lines->clear();
        m_advice.clear();
        m_closesAtEnd = false;
        return;
    }
    m_bar->setRange(0, 1);
    m_bar->reset();
    m_lines->setFocus(); // not a button: Enter held down shall not go on unasked
}

void UpdaterWindow::showUnpacking(int percent)
{
    m_headline->setText(tr("Unpacking the patch …"));
    m_bar->setRange(0, 100);
    m_bar->setValue(percent);
}

void UpdaterWindow::showPhase(Phase phase)
{
    const QMap<Phase, QString> headlines{
        {Phase::Finishing, tr("Finishing what was interrupted …")},
        {Phase::Checking, tr("Checking …")},
        {Phase::Staging, tr("Writing the new files …")},
        {Phase::Committing, tr("Putting the new files in place …")},
    };
    say(headlines.value(phase),
        m_updater.canCancel() ? tr("You can stop at any time: the game stays as it is.")
                              : tr("This takes a moment and cannot be stopped."));
    m_bar->setRange(0, 0); // busy, until something is known
    m_speed.restart();
    m_clock.start();
    refresh();
    if (m_closesAtEnd && m_updater.canCancel())
        stop(); // closed when it was not possible yet
}

void UpdaterWindow::showProgress(qint64 done, qint64 total)
{
    if (total <= 0 || !m_updater.isBusy())
        return;
    constexpr int Steps = 1000; // bytes do not fit in an int
    m_bar->setRange(0, Steps);
    m_bar->setValue(static_cast<int>(done * Steps / total));
    m_detail->setText(m_speed.text(done, total, m_clock.elapsed()));
}

void UpdaterWindow::showProblem(const Pellox::UpdateProblem &problem)
{
    m_lines->appendPlainText(problem.message());
    if (!m_advice.contains(problem.advice()))
        m_advice.append(problem.advice());
}

void UpdaterWindow::showPlan(const Pellox::UpdatePlan &plan)
{
    if (!m_updater.canUpdate())
        return showResult(Result::AlreadyUpToDate);
    addLines(tr("To change: %1"), plan.patches);
    addLines(tr("To add: %1"), plan.copies);
    addLines(tr("To remove: %1"), plan.deletions);
    sayAtEnd(tr("The update is ready"),
        tr("%1 will be written; the disk needs %2 free.")
            .arg(SpeedMeter::bytesText(plan.bytesToWrite),
                SpeedMeter::bytesText(plan.peakExtraDisk)));
}

void UpdaterWindow::showReport(const Pellox::IntegrityReport &report)
{
    addLines(tr("Damaged: %1"), report.changed);
    addLines(tr("Missing: %1"), report.missing);
    addLines(tr("Cannot be read: %1"), report.unreadable);
    sayAtEnd(report.isIntact() ? tr("All files are as they should be")
                               : tr("The game has to be repaired"),
        tr("Intact files: %1, damaged: %2, missing: %3, not part of the game: %4.")
            .arg(report.intactFiles)
            .arg(report.changed.size() + report.unreadable.size())
            .arg(report.missing.size())
            .arg(report.extra.size()));
}

void UpdaterWindow::showResult(Result result)
{
    const bool isRepair = m_updater.job() == Job::Repair;
    const bool isCheck = m_updater.job() == Job::Check; // so it was the recovery that failed
    const QMap<Result, QString> headlines{
        {Result::Updated, isRepair ? tr("The game is repaired") : tr("The game is up to date")},
        {Result::AlreadyUpToDate,
            isRepair ? tr("There is nothing to repair") : tr("The game is up to date")},
        {Result::Refused, tr("Refused. Nothing was changed.")},
        {Result::Failed,
            isCheck ? tr("Failed. Verify the files of the game.")
                    : tr("Failed. The game is as it was.")},
        {Result::Interrupted, tr("Not finished. Try again before you play.")},
        {Result::Cancelled,
            isCheck ? tr("Stopped. No update was begun.") : tr("Stopped. The game is as it was.")},
    };
    const bool isDone = result == Result::Updated || result == Result::AlreadyUpToDate;
    m_bar->setValue(isDone ? 1 : 0);
    m_lines->appendPlainText(headlines.value(result));
    if (result == Result::Failed || result == Result::Interrupted)
        m_closesAtEnd = false; // this must be seen
    sayAtEnd(headlines.value(result), m_advice.join(QLatin1Char(' ')));
}

void UpdaterWindow::say(const QString &headline, const QString &detail)
{
    m_headline->setText(headline);
    m_detail->setText(detail);
    QAccessibleEvent news(m_headline, QAccessible::Alert); // read out by screen readers
    QAccessible::updateAccessibility(&news);
}

void UpdaterWindow::sayAtEnd(const QString &headline, const QString &detail)
{
    say(headline, detail);
    if (m_closesAtEnd)
        close();
}

void UpdaterWindow::addLines(const QString &what, const QStringList &paths)
{
    for (const QString &path : paths.mid(0, MostLines))
        m_lines->appendPlainText(what.arg(path));
}

/// The buttons, as the job under way allows.
void UpdaterWindow::refresh()
{
    const bool isFree = !m_updater.isBusy();
    const bool hasBuild = isFree && !m_build->text().isEmpty();
    const bool hasSignatures = hasBuild && !m_signatures->text().isEmpty();
    m_fields->setEnabled(isFree);
    m_check->setEnabled(hasBuild && !m_patch->text().isEmpty());
    m_update->setEnabled(isFree && m_updater.canUpdate());
    m_verify->setEnabled(hasSignatures);
    m_repair->setEnabled(hasSignatures && !m_source->text().isEmpty());
    m_cancel->setEnabled(m_updater.canCancel());
    if (!m_updater.canCancel())
        m_question->hide(); // it is too late to ask
}
