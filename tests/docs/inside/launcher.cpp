// SPDX-License-Identifier: MIT
// A host's own class, which a sample is a part of.
#include <QObject>
#include <QString>

using Pellox::UpdateController;

class Launcher : public QObject
{
public:
    void start();
    void showError(const QString &message) { error = message; }
    void showResult(UpdateController::UpdateResult result) { last = result; }

    QString build;
    QString patch;
    QString error;
    UpdateController::UpdateResult last = UpdateController::UpdateResult::Failed;
};

void Launcher::start()
{
    // SAMPLE
}
