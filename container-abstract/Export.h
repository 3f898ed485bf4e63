#pragma once

#include <QtCore/qglobal.h>

#if defined(SARVELINTH_ABSTRACT_LIBRARY)
#define SARVELINTH_ABSTRACT_EXPORT Q_DECL_EXPORT
#else
#define SARVELINTH_ABSTRACT_EXPORT Q_DECL_IMPORT
#endif
