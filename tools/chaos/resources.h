// What the process holds.
#ifndef RUVO_TOOLS_CHAOS_RESOURCES_H
#define RUVO_TOOLS_CHAOS_RESOURCES_H

struct Resources {
  long descriptors = 0;
  long allocated = 0;  // bytes; 0 under a sanitizer, which has an allocator of its own
  long resident = 0;   // bytes, after free memory has been given back
};

Resources resources_in_use();

#endif
