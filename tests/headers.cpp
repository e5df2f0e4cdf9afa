// The precompiled headers of the test programs are compiled with this file, which needs nothing
// more.
