// Former names of what the headers below declare.
#pragma once

#include "records/FlowDetails.h"
#include "records/PublishedNames.h"
#include "records/TableOrigin.h"

#define NoteSource SetTableSource
#define NoteFlowDetails SetFlowDetails
#define SlotNames NumberedNames
#define SetSlotNames PublishNames
#define SlotNamesOf PublishedNames
#define Area NameList
