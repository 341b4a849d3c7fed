#ifndef VELMORA_SSDP_QTVERSION_H
#define VELMORA_SSDP_QTVERSION_H

// The installed header with this name is generated from cmake/QtVersion.h.in. It checks that the host
// uses the major version of Qt that the library was built with. In the source tree, both use the same Qt.

#endif
