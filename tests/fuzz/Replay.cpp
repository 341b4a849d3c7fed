#include <tests/fuzz/Harness.h>

#include <ssdp/SsdpManager.h>

#include <QtCore/QDirIterator>
#include <QtCore/QFile>

#include <cstdio>

/// Feeds every file of the folders and files given, in the place of libFuzzer.
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
            const QByteArray bytes = file.readAll();
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.constData()),
                                   static_cast<size_t>(bytes.size()));
            ++inputs;
        }
    }
    std::fprintf(stderr, "%d inputs\n", inputs);
    // Their HTTP threads would meet statics of Qt that are gone after main().
    qDeleteAll(QCoreApplication::instance()->findChildren<Velmora::SSDP::SsdpManager*>());
    return inputs > 0 ? 0 : 1;
}
