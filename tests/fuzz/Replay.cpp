#include <tests/fuzz/Harness.h>

#include <QtCore/QDirIterator>
#include <QtCore/QFile>

#include <cstdio>

/// Tests every file of the given folders.
int main(int argc, char** argv)
{
    LLVMFuzzerInitialize(&argc, &argv);
    int inputs = 0;
    for (int i = 1; i < argc; ++i) {
        QDirIterator files(QFile::decodeName(argv[i]), QDir::Files, QDirIterator::Subdirectories);
        while (files.hasNext()) {
            QFile file(files.next());
            Velmora::Fuzz::require(file.open(QIODevice::ReadOnly), "the input can be read");
            std::fprintf(stderr, "%s\n", qPrintable(file.fileName()));
            QByteArray input = file.readAll();
            Velmora::Fuzz::test(input);
            ++inputs;
        }
    }
    std::fprintf(stderr, "%d inputs\n", inputs);
    // With Qt 5.15, each control point has threads of Qt, which end here. After main(), Qt destroys objects that
    // these threads use.
    qDeleteAll(QCoreApplication::instance()->findChildren<Velmora::SSDP::SsdpManager*>());
    return inputs > 0 ? 0 : 1;
}
