#pragma once
// The model families this build contains; the others are registered as UnavailableModel.
#include "Plugin/Models/DA2/Context.h"
#include "Plugin/Models/FastDVDNet/Context.h"
#include "Plugin/Models/PLKSR/Context.h"
#include "Plugin/Models/QT/Context.h"
#include "Plugin/Models/RAFT/Context.h"
#include "Plugin/Models/RIFE/Context.h"
#include "Plugin/Models/RRDBNet/Context.h"
#include "Plugin/Models/SAM/Context.h"
#include "Plugin/Models/YOLO7/Context.h"
#include "Plugin/UnavailableModel.h"
