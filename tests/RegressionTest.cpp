#include "Checked.h"

#include <gtest/gtest.h>

// Every input that once crashed, hung or leaked (found by the fuzzer or by hand) stays
// here: it must parse to a balanced report of bounded size.
TEST(Regressions, EveryKeptInputParsesToABoundedBalancedReport)
{
    const QDir dir(QStringLiteral(SARVELINTH_SOURCE_DIR "/tests/data/regressions"));
    const QStringList names = dir.entryList(QDir::Files, QDir::Name);
    for (const QString &name : names) {
        const QByteArray input = readWholeFile(dir.filePath(name));
        const CheckedRun run = parseChecked(input);
        EXPECT_TRUE(run.sound()) << name.toStdString() << ": " << run.problem;
        EXPECT_LE(run.nodes(), CheckingSink::nodeBound(quint64(input.size())))
            << name.toStdString();
        EXPECT_LE(run.samples, quint64(input.size())) << name.toStdString();
    }
}
