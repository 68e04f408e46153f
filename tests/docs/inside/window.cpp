// SPDX-License-Identifier: MIT
// A host with a label that shows how far an update is.
#include <Pellox/UpdateController>

using Pellox::UpdateController;

class Label : public QObject
{
public:
    void showPercent(qlonglong percent) { m_percent = percent; }

private:
    qlonglong m_percent = 0;
};

void show(UpdateController *updater, Label *label);
void show(UpdateController *updater, Label *label)
{
    // SAMPLE
}
