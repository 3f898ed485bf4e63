#include "ContainerMP4.h"

void ContainerMP4::finalizeParsing() {}
