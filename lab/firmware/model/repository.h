// The objects that the firmware manages: instances of the classes in dash.mof. They show the host
// as it last reported itself, and outlive a restart of the firmware in a file of packed bytes.
//
// File: for each instance its number of packed bytes (32 bits, little-endian), four bytes of zero,
// and the packed bytes with zeros up to a multiple of 8. It is not trusted: what cannot be read, or
// is no instance of a class here, is left out.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "lab/firmware/model/objects.h"

namespace orrin {

// The classes of dash.mof.
extern const cim::SchemaDef gDashSchema;

// Returns the class of that name, ignoring case, or null.
const cim::ClassDef* FindClass(std::string_view name);

// One thread.
class Repository {
 public:
  // Replaces the instance with the same class and keys, or adds it. Properties that a console has
  // written (qualifier Write) keep their values.
  void Put(Object object);
  // Removes the instances of exactly this class.
  void RemoveClass(const char16_t* className);
  // Returns the instance with the class and the keys of `key`, or null. It stays the repository's
  // and is valid until the next change.
  cim::Instance* Find(const cim::Instance* key) const;
  // Returns the instances of the class and its subclasses, valid until the next change.
  std::vector<cim::Instance*> OfClass(const cim::ClassDef& def) const;
  std::size_t Count() const { return objects_.size(); }
  // Returns a deep copy. What finds no memory is missing in it.
  Repository Copy() const;
  const std::vector<Object>& All() const { return objects_; }

  // Returns the file's bytes. Returns an empty text if memory is short.
  std::string Packed() const;
  // Adds the instances in the bytes of a file. Returns how many were left out.
  std::size_t Restore(std::string_view bytes);

 private:
  std::vector<Object>::const_iterator Place(const cim::Instance* key) const;

  std::vector<Object> objects_;
};

// Returns the bytes of a file of at most 4 MiB, empty if it cannot be read.
std::string ReadRepositoryFile(const std::string& path);
// Replaces the file in one step. Returns false with errno set on failure.
bool WriteRepositoryFile(const std::string& path, const std::string& bytes);

}  // namespace orrin
