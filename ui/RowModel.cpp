#include "ui/RowModel.h"

#include <algorithm>

namespace tamsel {

// The interface first, so that it is there when the class is made.
RowModel::RowModel() : Glib::ObjectBase(typeid(RowModel)), Gio::ListModel(), Glib::Object() {}

Glib::RefPtr<RowModel> RowModel::create() {
  return Glib::make_refptr_for_instance<RowModel>(new RowModel());
}

void RowModel::setSize(guint size) {
  if (size == size_) return;
  const guint before = size_;
  size_ = size;
  const guint kept = std::min(before, size);
  items_changed(kept, before - kept, size - kept);
}

GType RowModel::get_item_type_vfunc() {
  return G_TYPE_OBJECT;
}

guint RowModel::get_n_items_vfunc() {
  return size_;
}

gpointer RowModel::get_item_vfunc(guint position) {
  return position < size_ ? g_object_new(G_TYPE_OBJECT, nullptr) : nullptr;
}

}  // namespace tamsel
