#ifndef LODESTONE_APP_TESTPOINTS_H
#define LODESTONE_APP_TESTPOINTS_H

// LODESTONE_TEST_POINT(name) marks a place between two steps that another thread can see apart: the tests
// hold and order the threads there. Nothing of it is in the library that hosts load: only the tests' own
// build of the sources defines LODESTONE_TEST_POINTS, and the function comes with the test.
#ifdef LODESTONE_TEST_POINTS
extern "C" void lodestoneTestPoint(const char* name) noexcept;
#define LODESTONE_TEST_POINT(name) lodestoneTestPoint("point:" #name)
#else
#define LODESTONE_TEST_POINT(name) static_cast<void>(0)
#endif

#endif
