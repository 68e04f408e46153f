// SPDX-License-Identifier: MIT
#include "compressor.h"

#include "outputparsers.h"
#include "sevenzip.h"

#include <QDebug>
#include <QDir>
#include <QProcess>

#include <algorithm>

namespace {

constexpr qint64 GiB = 1024LL * 1024 * 1024;

QString volumeSwitch(qint64 size)
{
    return size <= GiB ? QStringLiteral("-v%1b").arg(size)
                       : QStringLiteral("-v%1g").arg(size / GiB);
}

} // namespace

Compressor::Compressor(QObject *parent)
    : QObject(parent)
    , m_process(new QProcess(this))
    , m_defaultArguments{QStringLiteral("a"), QStringLiteral("-y"), QStringLiteral("-ssw"),
          QStringLiteral("-bse1"), QStringLiteral("-bso1"), QStringLiteral("-bsp1"),
          QStringLiteral("-sccUTF-8")}
    , m_programPath(SevenZip::programPath())
{
    // Most often told long after the start has returned.
    connect(m_process, &QProcess::errorOccurred, this, [this](QProcess::ProcessError problem) {
        if (problem == QProcess::FailedToStart)
            _onStartFailed();
    });
}

Compressor::~Compressor()
{
    m_process->disconnect(this);
    if (m_process->isOpen()) {
        m_process->close();
        m_process->kill();
    }
}

void Compressor::setCompressionLevel(int level)
{
    m_compressionLevel = std::clamp(level, -1, 9);
}

void Compressor::setMultiVolume(bool multiVolume)
{
    m_multiVolume = multiVolume;
}

void Compressor::setVolumeSize(qint64 volumeSize)
{
    m_volumeSize = volumeSize > 0 ? volumeSize : GiB;
}

void Compressor::addFiles(const QStringList &files)
{
    m_files += files;
}

void Compressor::setArchiveArchivePath(const QString &path)
{
    m_archiveArchivePath = path;
}

void Compressor::setPassword(const QString &password)
{
    m_password = password;
}

void Compressor::start(const QString &archiveName, const QString &workingDirectory)
{
    m_archiveName = archiveName;
    m_workingDirectory = workingDirectory;

    QStringList arguments = m_defaultArguments;
    if (m_multiVolume)
        arguments.append(volumeSwitch(m_volumeSize));
    arguments.append(m_archiveName);
    if (m_archiveArchivePath.isEmpty()) {
        arguments += m_files;
    } else {
        // The field itself grows, so a second start would add it again: promised.
        m_archiveArchivePath += QDir::separator() + QLatin1Char('*');
        arguments.append(m_archiveArchivePath);
    }
    if (!m_password.isEmpty())
        arguments.append(SevenZip::passwordSwitch(m_password));

    m_process->setProgram(m_programPath);
    m_process->setArguments(arguments);
    if (!m_workingDirectory.isEmpty())
        m_process->setWorkingDirectory(m_workingDirectory);
    connect(m_process, &QProcess::readyReadStandardOutput, this, &Compressor::_onOutput);
    connect(m_process, &QProcess::stateChanged, this, &Compressor::_onStateChanged);
    m_process->start(QIODevice::ReadWrite);

    if (m_process->error() == QProcess::FailedToStart)
        return;                     // told already
    m_process->closeWriteChannel(); // a question gets end of input instead of waiting for ever
    qDebug() << "7za successfuly started.";
    Q_EMIT started();
}

void Compressor::_onStartFailed()
{
    qDebug() << "Failed start 7z.";
    m_errors.append(SevenZip::startFailure());
    Q_EMIT error(m_errors);
}

void Compressor::_onOutput()
{
    if (m_everythingOk)
        return;
    const QString chunk = SevenZip::decode(m_process->readAllStandardOutput());
    m_lastOutput = chunk;
    const QString errorText = checkErrors(chunk);
    m_everythingOk = isEverythingIsOk(chunk);
    if (!errorText.isEmpty()) {
        if (m_errors.contains(errorText))
            return;
        m_errors.append(errorText);
        Q_EMIT error(m_errors);
        return;
    }
    for (const int percentage : SevenZip::percentages(chunk))
        Q_EMIT progress(percentage);
}

void Compressor::_onStateChanged()
{
    // A program that is not there gets here too, before its failure is told.
    m_hasRun = m_hasRun || m_process->state() == QProcess::Running;
    if (m_process->state() != QProcess::NotRunning)
        return;
    if (m_everythingOk) {
        Q_EMIT finished();
        qDebug() << "success";
    } else if (!m_errors.isEmpty()) {
        Q_EMIT error(m_errors);
    } else if (m_hasRun && m_onSilentEnd) {
        m_onSilentEnd(m_process->exitCode(), m_lastOutput);
    }
}
