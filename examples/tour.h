// One function per section of the tour, in the order main() calls them.
#pragma once

void tourSystemLayer();
void tourObjects();
void tourSync();
void tourContainers();
void tourMemory();
void tourPageAlloc();
void tourLog();
void tourStrings();
