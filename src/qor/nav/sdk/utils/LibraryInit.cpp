// Boost's system error category and the Asio error categories are set up when
// this library is loaded, as the kit's other libraries expect of it; Asio's
// thread-local call-stack key comes with the Asio headers.
#include <boost/asio/detail/call_stack.hpp>
#include <boost/asio/error.hpp>
#include <boost/system/error_code.hpp>

namespace qor::nav::sdk::utils {
namespace {

struct BoostCategories
{
    BoostCategories()
    {
        (void)boost::system::system_category();
        (void)boost::system::generic_category();
        (void)boost::asio::error::get_netdb_category();
        (void)boost::asio::error::get_addrinfo_category();
        (void)boost::asio::error::get_misc_category();
    }
};

const BoostCategories s_BoostCategories;

} // namespace
} // namespace qor::nav::sdk::utils
