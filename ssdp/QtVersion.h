#ifndef VELMORA_SSDP_QTVERSION_H
#define VELMORA_SSDP_QTVERSION_H

// Hosts get another header of this name, made from cmake/QtVersion.h.in. It names the Qt that the
// installed library was built with. From the source tree, library and host are compiled with the same Qt.

#endif
