// The extension module `orl._orl`; the package `orl` re-exports it.
#include "Bindings.h"

#include "Foundation/BasicException.h"

#include <boost/make_shared.hpp>

#include <cerrno>
#include <chrono>
#include <memory>
#include <new>

namespace Orl { namespace Python {

// The sink runs on whichever thread reports: the caller's or one of the scheduler's. The logger
// already serialises the calls of one logger; m_pError is only touched with the GIL held.
class CPythonProgress::CSink final : public Harnel::Progress::CLoggerSink
{
public:
  explicit CSink(py::object oCallback) : m_oCallback(std::move(oCallback)) {}
  ~CSink() override
  {
    py::gil_scoped_acquire oGil;
    m_oCallback = py::object();
  }

  void OnProgress(double dFraction, const std::string& strText) override { _Call(dFraction, strText); }
  void OnMessage(Harnel::Progress::_EVerbosityLevel, const std::string&) override {}
  void OnFinished() override { _Call(1.0, std::string()); }

  void Check()
  {
    if (m_pError)
    {
      py::error_already_set oError = std::move(*m_pError);
      m_pError.reset();
      throw oError;
    }
  }

private:
  void _Call(double dFraction, const std::string& strText)
  {
    py::gil_scoped_acquire oGil;
    if (m_pError)
      return;
    try
    {
      m_oCallback(dFraction, strText);
    }
    catch (py::error_already_set& oError)
    {
      m_pError = std::make_unique<py::error_already_set>(std::move(oError));
    }
  }

  py::object m_oCallback;
  std::unique_ptr<py::error_already_set> m_pError; // the callback's first exception
};

CPythonProgress::CPythonProgress(py::object oCallback)
{
  if (oCallback.is_none())
    return;
  if (!PyCallable_Check(oCallback.ptr()))
    throw py::type_error("progress: not callable");
  m_pSink = boost::make_shared<CSink>(std::move(oCallback));
  m_pLogger = boost::make_shared<Harnel::Progress::CLogger>(m_pSink, Harnel::Progress::eVerbosityInfo,
                                                            std::chrono::milliseconds(100));
}

CPythonProgress::~CPythonProgress() = default;

void CPythonProgress::Check()
{
  if (m_pSink)
    m_pSink->Check();
}

// The library's exceptions carry a stack of messages; Python gets all of them, oldest first. An
// error code (errno) makes it an OSError, anything else a ValueError.
void RegisterExceptionTranslator()
{
  py::register_exception_translator([](std::exception_ptr pException) {
    try
    {
      if (pException)
        std::rethrow_exception(pException);
    }
    catch (const Harnel::CBasicException& oException)
    {
      std::string strMessage = oException.ToString();
      while (!strMessage.empty() && strMessage.back() == '\n')
        strMessage.pop_back();
      const int nCode = oException.GetInfo(0).m_nErrorCode;
      if (nCode == ENOMEM)
        PyErr_SetString(PyExc_MemoryError, strMessage.c_str());
      else if (nCode != 0)
      {
        const py::object oError = py::reinterpret_steal<py::object>(
          PyObject_CallFunction(PyExc_OSError, "is", nCode, strMessage.c_str()));
        PyErr_SetObject(PyExc_OSError, oError.ptr());
      }
      else
        PyErr_SetString(PyExc_ValueError, strMessage.c_str());
    }
  });
}

}} // namespace Orl::Python

PYBIND11_MODULE(_orl, oModule)
{
  oModule.doc() = "Raster filters and statistics over numpy arrays, without copies.";
  Orl::Python::RegisterExceptionTranslator();
  Orl::Python::BindFillHole(oModule);
  Orl::Python::BindStatistics(oModule);
  Orl::Python::BindShapeFilters(oModule);
  Orl::Python::BindSignalFilters(oModule);
  Orl::Python::BindPixelFilters(oModule);
  Orl::Python::BindStackFilters(oModule);
}
