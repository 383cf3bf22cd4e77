#pragma once

#include <giomm/listmodel.h>
#include <glibmm/object.h>

namespace tamsel {

/// A list model of rows that are known by their position alone: what a row shows, its view looks up
/// elsewhere. So a list of thousands costs nothing but the rows on screen.
class RowModel : public Gio::ListModel, public Glib::Object {
 public:
  static Glib::RefPtr<RowModel> create();

  guint size() const { return size_; }
  void setSize(guint size);

 protected:
  RowModel();
  GType get_item_type_vfunc() override;
  guint get_n_items_vfunc() override;
  gpointer get_item_vfunc(guint position) override;

 private:
  guint size_ = 0;
};

}  // namespace tamsel
