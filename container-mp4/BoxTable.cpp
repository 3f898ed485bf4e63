#include "ContainerMP4.h"

// The box types this parser knows by name: whether a box is a container, whether it
// begins with a version and flags word, and which payload parser reads it.
void ContainerMP4::buildBoxTable()
{
    struct Row {
        const char *type;
        int elementType;
        int fullBox;
        BoxHandler handler;
        bool opensStream = false;
        NotedBox noted = NotedBox::None;
    };
    static const Row rows[] = {
        {"free", PlainBox, 0, &ContainerMP4::parseJunk},
        {"ftyp", FileTypeBox, 0, &ContainerMP4::parseFileType, false, NotedBox::FileType},
        {"iods", PlainBox, 1, nullptr},
        {"moov", ContainerBox, 0, nullptr},
        {"mvhd", PlainBox, 1, &ContainerMP4::parseBoxMVHD, false, NotedBox::MovieHeader},
        {"mdat", PlainBox, 0, &ContainerMP4::parseBoxMDAT, false, NotedBox::MediaData},
        {"meta", ContainerBox, 1, nullptr},
        {"skip", PlainBox, 0, &ContainerMP4::parseJunk},
        {"udta", ContainerBox, 0, nullptr},
        {"trak", ContainerBox, 0, nullptr, true},
        {"tkhd", PlainBox, 1, &ContainerMP4::parseBoxTKHD, false, NotedBox::TrackHeader},
        {"mdia", ContainerBox, 0, nullptr},
        {"mdhd", PlainBox, 1, &ContainerMP4::parseBoxMDHD, false, NotedBox::MediaHeader},
        {"hdlr", PlainBox, 1, &ContainerMP4::parseBoxHDLR},
        {"minf", ContainerBox, 0, nullptr},
        {"smhd", PlainBox, 1, &ContainerMP4::parseBoxSMHD},
        {"vmhd", PlainBox, 1, &ContainerMP4::parseBoxVMHD},
        {"dinf", ContainerBox, 0, nullptr},
        {"dref", PlainBox, 1, nullptr},
        {"stbl", ContainerBox, 0, nullptr},
        {"stsd", PlainBox, 1, &ContainerMP4::parseBoxSTSD},
        {"stts", PlainBox, 1, &ContainerMP4::parseBoxSTTS, false, NotedBox::TimeToSample},
        {"stss", PlainBox, 1, &ContainerMP4::parseBoxSTSS, false, NotedBox::SyncSamples},
        {"stsc", PlainBox, 1, &ContainerMP4::parseBoxSTSC, false, NotedBox::SampleToChunk},
        {"stco", PlainBox, 1, &ContainerMP4::parseBoxSTCO, false, NotedBox::ChunkOffsets},
        {"co64", PlainBox, 1, &ContainerMP4::parseBoxCO64, false, NotedBox::ChunkOffsets64},
        {"stsz", PlainBox, 1, &ContainerMP4::parseBoxSTSZ, false, NotedBox::SampleSizes},
        {"ilst", ContainerBox, 0, nullptr},
        {"pdin", PlainBox, 1, nullptr},
        {"tref", PlainBox, 0, nullptr},
        {"trgr", PlainBox, 1, nullptr},
        {"edts", ContainerBox, 0, nullptr},
        {"elst", PlainBox, 1, &ContainerMP4::parseBoxELST, false, NotedBox::EditList},
        {"hmhd", PlainBox, 1, nullptr},
        {"nmhd", PlainBox, 1, nullptr},
        {"mvex", ContainerBox, 0, nullptr},
        {"mehd", PlainBox, 1, nullptr},
        {"trex", PlainBox, 1, nullptr},
        {"leva", PlainBox, 1, nullptr},
        {"moof", ContainerBox, 0, nullptr},
        {"mfhd", PlainBox, 1, nullptr},
        {"traf", ContainerBox, 0, nullptr},
        {"tfhd", PlainBox, 1, nullptr},
        {"trun", PlainBox, 1, nullptr},
        {"sbgp", PlainBox, 1, nullptr},
        {"sgpd", PlainBox, 1, nullptr},
        {"subs", PlainBox, 1, nullptr},
        {"saiz", PlainBox, 1, nullptr},
        {"saio", PlainBox, 1, nullptr},
        {"tfdt", PlainBox, 1, nullptr},
        {"mfra", ContainerBox, 0, nullptr},
        {"tfra", PlainBox, 1, nullptr},
        {"mfro", PlainBox, 1, nullptr},
        {"cprt", PlainBox, 1, nullptr},
        {"tsel", PlainBox, 1, nullptr},
        {"strk", ContainerBox, 0, nullptr},
        {"stri", PlainBox, 1, nullptr},
        {"strd", ContainerBox, 0, nullptr},
        {"meco", ContainerBox, 0, nullptr},
        {"mere", PlainBox, 1, nullptr},
        {"styp", FileTypeBox, 0, &ContainerMP4::parseFileType, false, NotedBox::FileType},
        {"sidx", PlainBox, 1, nullptr},
        {"ssix", PlainBox, 1, nullptr},
        {"prft", PlainBox, 1, nullptr},
        {"esds", PlainBox, 1, nullptr},
        {"avcC", PlainBox, 0, &ContainerMP4::parseBoxAVCC},
        {"pasp", PlainBox, 0, nullptr},
        {"clap", PlainBox, 0, nullptr},
    };
    for (const Row &row : rows) {
        auto *element = new ElementMP4(row.elementType, row.fullBox, row.handler, QString(),
                                       QString(), row.opensStream);
        element->noted = row.noted;
        elements.insert(QString::fromLatin1(row.type), element);
    }
}
