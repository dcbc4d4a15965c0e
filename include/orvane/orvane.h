#ifndef ORVANE_ORVANE_H
#define ORVANE_ORVANE_H

// Everything the library offers, in one include.

#include "orvane/export.h"
#include "orvane/path.h"
#include "orvane/path_string.h"
#include "orvane/module.h"
#include "orvane/timer.h"
#include "orvane/fs.h"
#include "orvane/log_channel.h"
#include "orvane/lock_file.h"
#include "orvane/exclusive_lock.h"
#include "orvane/rw_lock.h"

#endif
