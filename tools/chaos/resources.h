// The resources that the process holds.
#ifndef RUVO_TOOLS_CHAOS_RESOURCES_H
#define RUVO_TOOLS_CHAOS_RESOURCES_H

struct Resources {
  long descriptors = 0;
  long allocated = 0;  // bytes; 0 under a sanitizer, which has an allocator of its own
  long resident = 0;   // bytes, after free memory has been returned to the system
};

Resources resources_in_use();

#endif
