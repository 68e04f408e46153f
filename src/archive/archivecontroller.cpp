// SPDX-License-Identifier: MIT
#include "archivecontroller.h"

#include "compressor.h"
#include "decompressor.h"
#include "loggedlist.h"

#include <QDebug>
#include <QDir>
#include <QEventLoop>
#include <QTimer>

namespace Pellox {

namespace {

QString silentEndError(int exitCode, const QString &lastOutput)
{
    return QStringLiteral("7-Zip ended with exit code %1 and told neither success nor failure. "
                          "Its last output: %2")
        .arg(QString::number(exitCode), lastOutput);
}

} // namespace

ArchiveController::ArchiveController(QObject *parent)
    : QObject(parent)
{
}

void ArchiveController::setChunkSize(qint64 chunkSize)
{
    m_chunkSize = chunkSize;
}

void ArchiveController::setSilentEndIsError(bool silentEndIsError)
{
    m_silentEndIsError = silentEndIsError;
}

bool ArchiveController::createArchive(const QString &archiveFolder, const QString &archiveName,
    const QString &sourceFolder, PROGRESS_CALLBACK progress)
{
    m_createResult = false;
    auto *compressor = new Compressor(this);
    compressor->setMultiVolume(true);
    compressor->setVolumeSize(m_chunkSize);
    const QDir folder(archiveFolder);
    if (!folder.exists())
        folder.mkdir(folder.absolutePath());
    compressor->setArchiveArchivePath(QDir(sourceFolder).absolutePath());

    QEventLoop loop;
    bool ended = false; // the loop forgets a quit that comes before it runs
    const auto end = [&] {
        ended = true;
        loop.quit();
    };
    const auto fail = [&](const QStringList &errors) {
        compressor->disconnect(this); // what the child still says must not turn the outcome
        qDebug() << "compression finished with errors" << LoggedList{errors};
        Q_EMIT createArchiveError(errors);
        end();
    };
    connect(compressor, &Compressor::finished, this, [&] {
        m_createResult = true;
        Q_EMIT createArchiveSuccess();
        end();
    });
    connect(compressor, &Compressor::progress, this, [&](int percents) {
        if (progress)
            progress(percents);
    });
    connect(compressor, &Compressor::error, this, fail);
    if (m_silentEndIsError) {
        compressor->m_onSilentEnd = [&](int exitCode, const QString &lastOutput) {
            fail({silentEndError(exitCode, lastOutput)});
        };
    }

    compressor->start(archiveName, folder.absolutePath());
    if (!ended)
        loop.exec();

    // The compressor stays until this object goes; its callbacks' surroundings do not.
    compressor->disconnect(this);
    compressor->m_onSilentEnd = nullptr;
    if (progress)
        progress(100.0);
    return m_createResult;
}

bool ArchiveController::extractArchive(const QString &archivePath, const QString &destinationFolder,
    const QString &stage, PROGRESS_CALLBACK progress)
{
    m_extractResult = false;
    const QDir folder(destinationFolder);
    if (!folder.exists())
        folder.mkdir(destinationFolder);

    QEventLoop loop;
    auto *decompressor = new Decompressor(&loop);
    const auto fail = [&](const QStringList &errors) {
        decompressor->disconnect(this); // what the child still says must not turn the outcome
        decompressor->disconnect(&loop);
        qDebug() << "extraction finished with errors" << LoggedList{errors};
        Q_EMIT extractError(errors);
        loop.quit();
    };
    connect(decompressor, &Decompressor::finished, this, &ArchiveController::extractSuccess);
    connect(decompressor, &Decompressor::finished, this, [&] {
        m_extractResult = true;
        loop.quit();
    });
    connect(decompressor, &Decompressor::error, &loop, fail);
    connect(decompressor, &Decompressor::progress, this, [&](double percents) {
        if (progress)
            progress(percents);
    });
    if (m_silentEndIsError) {
        decompressor->m_onSilentEnd = [&](int exitCode, const QString &lastOutput) {
            if (!m_extractResult) // output behind the success makes the driver forget it
                fail({silentEndError(exitCode, lastOutput)});
        };
    }

    // Posted, so that every outcome comes while the loop runs.
    QTimer::singleShot(0, decompressor,
        [&] { decompressor->start(archivePath, QString(), folder.absolutePath(), stage); });
    loop.exec();
    return m_extractResult;
}

void ArchiveController::init() { }

} // namespace Pellox
