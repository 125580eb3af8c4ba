// Boost.Beast's non-template code, compiled once for all test servers instead
// of in every file that uses Beast (see CMakeLists.txt for how it is built).
#include <boost/beast/src.hpp>
