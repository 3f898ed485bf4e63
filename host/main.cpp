#include "Host.h"

#include <QCoreApplication>

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    return runHost(application.arguments().mid(1), stdout, stderr);
}
