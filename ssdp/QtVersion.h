#ifndef VELMORA_SSDP_QTVERSION_H
#define VELMORA_SSDP_QTVERSION_H

// The installed header of this name is another one, made from cmake/QtVersion.h.in. It contains the
// version of Qt that the library was built with. In the source tree, library and host use the same Qt.

#endif
