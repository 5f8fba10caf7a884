// Machine as a library that sessions load with a database: put libmachines.so into the folder
// data/tarns.libraries of the database data/tarns.conf.
#include <tarns/session/TarnLibrary.h>

TARN_LIBRARY();
