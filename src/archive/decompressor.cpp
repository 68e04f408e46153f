// SPDX-License-Identifier: MIT
#include "decompressor.h"

#include "loggedlist.h"
#include "outputparsers.h"
#include "sevenzip.h"

#include <QDebug>
#include <QDir>
#include <QProcess>

namespace {

const QString ProcessStage = QStringLiteral("process");
const QString WrapperStage = QStringLiteral("wrapper");

} // namespace

Decompressor::Decompressor(QObject *parent)
    : QObject(parent)
    , m_process(new QProcess(this))
    , m_defaultArguments{QStringLiteral("x"), QStringLiteral("-y"), QStringLiteral("-bse1"),
          QStringLiteral("-bso1"), QStringLiteral("-bsp1"), QStringLiteral("-sccUTF-8")}
    , m_programPath(SevenZip::programPath())
{
    // Most often told long after the start has returned.
    connect(m_process, &QProcess::errorOccurred, this, [this](QProcess::ProcessError problem) {
        if (problem == QProcess::FailedToStart)
            _onStartFailed();
    });
}

Decompressor::~Decompressor()
{
    m_process->disconnect();
    if (m_process->isOpen()) {
        m_process->close();
        m_process->kill();
    }
}

void Decompressor::start(const QString &archivePath, const QString &destination,
    const QString &baseFolder, const QString &stage)
{
    Q_EMIT started();
    if (stage.isEmpty() || stage == ProcessStage)
        m_stages.append(ProcessStage);
    if (m_stages.isEmpty()) {
        m_errors.append(QLatin1String("Empty stages ") + stage);
        Q_EMIT error(m_errors);
        return;
    }

    m_archivePath = archivePath;
    m_baseFolder = baseFolder;
    const QDir folder(QDir(baseFolder).absoluteFilePath(destination));
    m_destination = folder.absolutePath();
    if (folder.exists()) {
        _startExtract();
        return;
    }
    qDebug() << "Create dst dir: " << m_destination;
    if (folder.mkpath(m_destination))
        _startExtract();
    else
        Q_EMIT error({QStringLiteral("Create dst dir fail!")});
}

void Decompressor::_startExtract()
{
    if (m_stages.isEmpty()) {
        Q_EMIT error(m_errors);
        return;
    }
    const QString stage = m_stages.takeFirst();
    qDebug() << "Decompress by: " << stage << " in queue: " << Pellox::LoggedList{m_stages};
    if (stage == WrapperStage)
        _extractByWrapper();
    else if (stage == ProcessStage)
        _extractBy7za();
}

void Decompressor::_extractByWrapper() { }

void Decompressor::_extractBy7za()
{
    QStringList arguments = m_defaultArguments;
    // The base folder, not the destination within it: promised.
    if (!m_baseFolder.isEmpty())
        arguments.append(QLatin1String("-o") + m_baseFolder);
    if (!m_password.isEmpty())
        arguments.append(SevenZip::passwordSwitch(m_password));
    arguments.append(m_archivePath);

    m_process->setProgram(m_programPath);
    m_process->setArguments(arguments);
    if (!m_baseFolder.isEmpty())
        m_process->setWorkingDirectory(m_baseFolder);
    connect(m_process, &QProcess::readyReadStandardOutput, this, &Decompressor::_onOutput);
    connect(m_process, &QProcess::readyReadStandardError, this,
        [this] { m_process->readAllStandardError(); });
    connect(m_process, &QProcess::stateChanged, this, &Decompressor::_onStateChanged);
    m_process->start(QIODevice::ReadWrite);

    if (m_process->error() == QProcess::FailedToStart)
        return;                     // told already
    m_process->closeWriteChannel(); // a question gets end of input instead of waiting for ever
    Q_EMIT started();
}

void Decompressor::_onStartFailed()
{
    m_errors.append(SevenZip::startFailure());
    _startExtract();
}

void Decompressor::_onOutput()
{
    if (m_everythingOk)
        Q_EMIT finished(); // again for each chunk behind the success: promised
    const QString chunk = strip(SevenZip::decode(m_process->readAllStandardOutput()));
    m_lastOutput = chunk;
    const QString errorText = checkErrors(chunk.toUpper());
    m_everythingOk = isEverythingIsOk(chunk);
    if (!errorText.isEmpty()) {
        if (m_errors.contains(errorText))
            return;
        m_errors.append(errorText);
        _startExtract();
        return;
    }
    for (const int percentage : SevenZip::percentages(chunk))
        Q_EMIT progress(percentage);
}

void Decompressor::_onStateChanged()
{
    // A program that is not there gets here too, before its failure is told.
    m_hasRun = m_hasRun || m_process->state() == QProcess::Running;
    if (m_process->state() != QProcess::NotRunning)
        return;
    if (m_everythingOk)
        Q_EMIT finished();
    else if (!m_errors.isEmpty())
        _startExtract();
    else if (m_hasRun && m_onSilentEnd)
        m_onSilentEnd(m_process->exitCode(), m_lastOutput);
}
