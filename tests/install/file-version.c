/* Prints what Windows says of the version of a file: four numbers, and the texts of its table. */
#include <stdio.h>
#include <windows.h>

static char data[65536];

static int PrintText(const char* name) {
  char query[128];
  char* text;
  UINT length;
  snprintf(query, sizeof query, "\\StringFileInfo\\040904B0\\%s", name);
  if (!VerQueryValueA(data, query, (void**)&text, &length)) return 1;
  printf("%s=%s\n", name, text);
  return 0;
}

int main(int count, char** arguments) {
  const char* names[] = {"CompanyName",      "FileDescription", "FileVersion",   "InternalName",
                         "OriginalFilename", "ProductName",     "ProductVersion"};
  VS_FIXEDFILEINFO* fixed;
  UINT length;
  int missing = 0;
  if (count != 2 || !GetFileVersionInfoA(arguments[1], 0, sizeof data, data)) return 1;
  if (!VerQueryValueA(data, "\\", (void**)&fixed, &length)) return 1;
  printf("file=%u.%u.%u.%u\n", HIWORD(fixed->dwFileVersionMS), LOWORD(fixed->dwFileVersionMS),
         HIWORD(fixed->dwFileVersionLS), LOWORD(fixed->dwFileVersionLS));
  printf("type=%lu\n", (unsigned long)fixed->dwFileType);
  for (size_t i = 0; i < sizeof names / sizeof *names; ++i) missing += PrintText(names[i]);
  return missing;
}
